// The exported classes: thin handles over the implementation, and the border that no exception
// crosses but those that the header promises.
#include "ZelMediaServices.h"
#include "ZelMediaServicesImpl.h"
#include "ZelMediaStreamImpl.h"

#include <new>
#include <utility>

namespace
{
// Runs an operation; running out of memory anywhere below is a status.
template <class OPERATION> int guarded(OPERATION operation) noexcept
{
    try
    {
        return operation();
    }
    catch (...)
    {
        return MCS_OUTOFMEMORY;
    }
}

char* textOrEmpty(char* pszText)
{
    static char szEmpty[] = "";
    return pszText ? pszText : szEmpty;
}

// The implementation writes its answer here when the application gave no place for it.
template <class T> class CAnswer
{
public:
    explicit CAnswer(T* p) : m_p(p ? p : &m_unwanted) {}
    operator T*() { return m_p; }

private:
    T m_unwanted = T();
    T* m_p;
};
} // namespace

CZelMediaStreamCompletionHandler::CZelMediaStreamCompletionHandler() = default;
CZelMediaStreamCompletionHandler::~CZelMediaStreamCompletionHandler() = default;

CZelMediaServices::CZelMediaServices(CZelMediaStreamCompletionHandler* pHandler)
    : m_pImpl(new (std::nothrow) CZelMediaServicesImpl(pHandler))
{
    if (!m_pImpl)
        throw 0;
}

CZelMediaServices::~CZelMediaServices()
{
    delete std::exchange(m_pImpl, nullptr);
}

namespace
{
// ppStream receives the stream, or null, as CZelMediaServices::openMediaStream says.
template <class INITIALIZE> int openStream(CZelMediaStream** ppStream, INITIALIZE initialize) noexcept
{
    if (!ppStream)
        return MCS_INVALIDHANDLE;
    *ppStream = nullptr;
    CZelMediaStream* pStream = nullptr;
    try
    {
        pStream = new (std::nothrow) CZelMediaStream;
        if (!pStream)
            return MCS_OUTOFMEMORY;
        const int nStatus = initialize(*pStream);
        if (nStatus == MCS_OK)
            *ppStream = pStream;
        else
            delete pStream;
        return nStatus;
    }
    catch (...)
    {
        // Null when the stream could not be built; otherwise the caller gets it to close.
        *ppStream = pStream;
        return MCS_OUTOFMEMORY;
    }
}
} // namespace

int CZelMediaServices::openMediaStream(std::string strInDev, std::string strOutDev, CZelMediaStream** ppStream)
{
    return openStream(
        ppStream, [&](CZelMediaStream& stream) { return stream.initialize(m_pImpl, strInDev, strOutDev); });
}

int CZelMediaServices::openMediaStream(CZelMediaStream** ppStream, std::string strCallID, unsigned long ulLegID)
{
    return openStream(
        ppStream, [&](CZelMediaStream& stream) { return stream.initialize(m_pImpl, strCallID, ulLegID); });
}

void CZelMediaServices::closeMediaStream(CZelMediaStream* pStream)
{
    delete pStream;
}

int CZelMediaServices::openPhraseFile(char* pszFileName, unsigned long* pulFileID)
{
    CAnswer<unsigned long> answer(pulFileID);
    return guarded([&] { return m_pImpl->openPhraseFile(textOrEmpty(pszFileName), answer); });
}

int CZelMediaServices::closePhraseFile(unsigned long ulFileID)
{
    return guarded([&] { return m_pImpl->closePhraseFile(ulFileID); });
}

int CZelMediaServices::setMinimumSilenceDuration(unsigned short usMs)
{
    return guarded([&] { return m_pImpl->setMinimumSilenceDuration(usMs); });
}

void CZelMediaServices::setLogger(OrvLogLib::CLogFile* pLogFile, OrvLogLib::CLogFileRegistry* pLogFileRegistry)
{
    m_pImpl->setLogger(pLogFile, pLogFileRegistry);
}

int CZelMediaServices::dump()
{
    return guarded([&] { return m_pImpl->dump(); });
}

CZelMediaStream::CZelMediaStream() : m_pImpl(new (std::nothrow) CZelMediaStreamImpl)
{
    if (!m_pImpl)
        throw 0;
}

CZelMediaStream::~CZelMediaStream()
{
    delete std::exchange(m_pImpl, nullptr);
}

int CZelMediaStream::initialize(CZelMediaServicesImpl* pServices, std::string strInDev, std::string strOutDev)
{
    return m_pImpl->initialize(pServices, this, strInDev, strOutDev);
}

int CZelMediaStream::initialize(CZelMediaServicesImpl* pServices, std::string strCallID, unsigned long ulLegID)
{
    return m_pImpl->initialize(pServices, this, strCallID, ulLegID);
}

int CZelMediaStream::playAddFile(char* pszFile, unsigned long ulStartPos, unsigned long ulTimeout, int nFlag,
                                 int nStartPosInMs, unsigned long ulPlayParam)
{
    return guarded([&] {
        return m_pImpl->playAddFile(textOrEmpty(pszFile), ulStartPos, ulTimeout, nFlag, nStartPosInMs, ulPlayParam);
    });
}

int CZelMediaStream::playAddPhrase(unsigned long ulFileID, unsigned long ulOffset, unsigned long ulLength,
                                   unsigned long ulTimeout, int nFlag, unsigned long ulPlayParam)
{
    return guarded([&] { return m_pImpl->playAddPhrase(ulFileID, ulOffset, ulLength, ulTimeout, nFlag, ulPlayParam); });
}

int CZelMediaStream::playAddBuffer(unsigned char* pBuffer, unsigned long ulSize, unsigned long ulTimeout, int nFlag,
                                   unsigned long ulPlayParam)
{
    return m_pImpl->playAddBuffer(pBuffer, ulSize, ulTimeout, nFlag, ulPlayParam);
}

int CZelMediaStream::playCancel()
{
    return guarded([&] { return m_pImpl->playCancel(); });
}

int CZelMediaStream::playResetBuffers()
{
    return guarded([&] { return m_pImpl->playResetBuffers(); });
}

int CZelMediaStream::playGetSeconds(unsigned long* pulSeconds)
{
    CAnswer<unsigned long> answer(pulSeconds);
    return guarded([&] { return m_pImpl->playGetSeconds(answer); });
}

int CZelMediaStream::playGetMilliSeconds(unsigned long* pulMilliSeconds)
{
    CAnswer<unsigned long> answer(pulMilliSeconds);
    return guarded([&] { return m_pImpl->playGetMilliSeconds(answer); });
}

int CZelMediaStream::playSetCancelled(int nCancelled)
{
    return guarded([&] { return m_pImpl->playSetCancelled(nCancelled); });
}

int CZelMediaStream::playGetCancelled(int* pnCancelled)
{
    CAnswer<int> answer(pnCancelled);
    return guarded([&] { return m_pImpl->playGetCancelled(answer); });
}

int CZelMediaStream::playGetInfo(_CHANNEL_PLAY_DATA* pInfo)
{
    return guarded([&] { return m_pImpl->playGetInfo(pInfo); });
}

int CZelMediaStream::recordToFile(char* pszFileName, int nRlen, unsigned long ulMaxSeconds, unsigned long ulTimeout,
                                  int nFlag)
{
    return guarded(
        [&] { return m_pImpl->recordToFile(textOrEmpty(pszFileName), nRlen, ulMaxSeconds, ulTimeout, nFlag); });
}

int CZelMediaStream::recordToFileWithPromptPhrase(unsigned long ulFileID, unsigned long ulOffset,
                                                  unsigned long ulLength, char* pszFileName, int nRlen,
                                                  unsigned long ulMaxSeconds, unsigned long ulTimeout, int nFlag)
{
    return guarded([&] {
        return m_pImpl->recordToFileWithPromptPhrase(ulFileID, ulOffset, ulLength, textOrEmpty(pszFileName), nRlen,
                                                     ulMaxSeconds, ulTimeout, nFlag);
    });
}

int CZelMediaStream::recordToBuffer(unsigned char* pBuffer, unsigned long ulSize, unsigned long ulTimeout, int nFlag)
{
    return m_pImpl->recordToBuffer(pBuffer, ulSize, ulTimeout, nFlag);
}

int CZelMediaStream::recordToBufferWithPromptPhrase(unsigned long ulFileID, unsigned long ulOffset,
                                                    unsigned long ulLength, unsigned char* pBuffer,
                                                    unsigned long ulSize, unsigned long ulTimeout, int nFlag)
{
    return m_pImpl->recordToBufferWithPromptPhrase(ulFileID, ulOffset, ulLength, pBuffer, ulSize, ulTimeout, nFlag);
}

int CZelMediaStream::recordCancel()
{
    return guarded([&] { return m_pImpl->recordCancel(); });
}

int CZelMediaStream::recordGetStatus()
{
    return guarded([&] { return m_pImpl->recordGetStatus(); });
}

int CZelMediaStream::recordGetTimeMilliseconds(unsigned long* pulMilliSeconds)
{
    CAnswer<unsigned long> answer(pulMilliSeconds);
    return guarded([&] { return m_pImpl->recordGetTimeMilliseconds(answer); });
}

int CZelMediaStream::recordGetInfo(_CHANNEL_RECORD_DATA* pInfo)
{
    return guarded([&] { return m_pImpl->recordGetInfo(pInfo); });
}

int CZelMediaStream::recordSetSilenceParameters(unsigned short usLimitMs, unsigned char ucUlawLimit,
                                                unsigned long ulLimitMs)
{
    return guarded([&] { return m_pImpl->recordSetSilenceParameters(usLimitMs, ucUlawLimit, ulLimitMs); });
}
