// The services object: creates the driver interface, keeps the registry of streams, forwards.
#include "ZelMediaServicesImpl.h"
#include "OrvException.h"

#include <new>

using namespace OrvLogLib;

namespace
{
// The lines are those that log scanners and crash reports know; they stay as the code moves.
const char SOURCE_PATH[] = "ZelMediaServices/Library-Linux/ZelMediaServicesImpl";
const int LINE_NO_INTERFACE = 2556;
const int LINE_NO_LOCK = 2561;
} // namespace

CZelMediaServicesImpl::CZelMediaServicesImpl(CZelMediaStreamCompletionHandler* pHandler)
    : m_pCritSec(nullptr), m_pStreamHandler(pHandler)
{
    if (!driverInterface())
    {
        CMIntf* const pmintf = new (std::nothrow) CMIntf;
        if (!pmintf)
            throw OrvException(OrvException::OUT_OF_MEMORY, SOURCE_PATH, LINE_NO_INTERFACE);
        storeUnlocked(g_pmintf, pmintf);
    }
    m_pCritSec = new (std::nothrow) ZelCritSec("CZelMediaServicesImpl", 1);
    if (!m_pCritSec)
        throw OrvException(OrvException::OUT_OF_MEMORY, SOURCE_PATH, LINE_NO_LOCK);
}

CZelMediaServicesImpl::~CZelMediaServicesImpl()
{
    delete m_pCritSec;
}

void CZelMediaServicesImpl::setLogger(CLogFile* pLogFile, CLogFileRegistry* pLogFileRegistry)
{
    if (pLogFile)
        driverInterface()->replaceLogFile(pLogFile);
    if (pLogFileRegistry)
        driverInterface()->replaceLogFileRegistry(pLogFileRegistry);
}

int CZelMediaServicesImpl::addStream(CZelMediaStream* pStream, int nStreamID)
{
    traceOperation("CZelMediaServicesImpl::addStream 0x%08X, id %d", addressForLog(pStream), nStreamID);
    CCritSecHold hold(m_pCritSec, 2652, 2656);
    m_mapStreamByID[nStreamID] = pStream;
    return MCS_OK;
}

int CZelMediaServicesImpl::remStream(int nStreamID)
{
    traceOperation("CZelMediaServicesImpl::remStream, id %d", nStreamID);
    {
        CCritSecHold hold(m_pCritSec, 2668, 2672);
        m_mapStreamByID.erase(nStreamID);
    }
    return driverInterface()->closeStream(nStreamID);
}

void CZelMediaServicesImpl::forgetStream(int nStreamID)
{
    {
        CCritSecHold hold(m_pCritSec);
        m_mapStreamByID.erase(nStreamID);
    }
    driverInterface()->forgetStream(nStreamID);
}

void CZelMediaServicesImpl::OnCMIntfCompletion(int nStreamID, MCSTATUS mcstatus,
                                               CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON reason)
{
    CZelMediaStream* pStream = nullptr;
    CZelMediaStreamCompletionHandler* const pHandler = m_pStreamHandler;
    {
        CCritSecHold hold(m_pCritSec, 2625, 2633);
        const auto it = m_mapStreamByID.find(nStreamID);
        if (it != m_mapStreamByID.end())
            pStream = it->second;
    }
    traceOperation("CZelMediaServicesImpl::OnCMIntfCompletion (0x%08X), sid %d, status 0x%08X, reason 0x%08X",
                   addressForLog(pStream), nStreamID, static_cast<unsigned int>(mcstatus),
                   static_cast<unsigned int>(reason));
    // Nothing of this object is touched any more: the application may delete it as soon as it knows of
    // the completion.
    if (pStream && pHandler)
        pHandler->OnMediaStreamCompletion(pStream, mcstatus, reason);
}

int CZelMediaServicesImpl::setMinimumSilenceDuration(unsigned short)
{
    // Ends in a literal "d": the value was never printed.
    traceOperation("CZelMediaServicesImpl::setMinimumSilenceDuration d");
    return MCS_OK;
}

int CZelMediaServicesImpl::openPhraseFile(char* pszFileName, unsigned long* pulFileID)
{
    traceOperation("CZelMediaServicesImpl::openPhraseFile %s", pszFileName);
    int nFileID = -1;
    *pulFileID = static_cast<unsigned int>(nFileID);
    const int nStatus = driverInterface()->openFile(pszFileName, &nFileID);
    // Through 32 bits, so that "no id" is 0xFFFFFFFF also where unsigned long is wider.
    *pulFileID = static_cast<unsigned int>(nFileID);
    return nStatus;
}

int CZelMediaServicesImpl::closePhraseFile(unsigned long ulFileID)
{
    traceOperation("CZelMediaServicesImpl::closePhraseFile");
    return driverInterface()->closeFile(static_cast<int>(ulFileID));
}

int CZelMediaServicesImpl::dump()
{
    traceOperation("CZelMediaServicesImpl::dump()");
    return driverInterface()->dump();
}
