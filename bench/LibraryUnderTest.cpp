#include "LibraryUnderTest.h"

#include <stdexcept>
#include <string>
#include <thread>

using namespace OrvLogLib;

namespace
{
// A log may treat lines differently while they come fast.
constexpr int LINES_TO_STRIDE = 20000;

void require(int nStatus, const char* pWhat)
{
    if (nStatus != MCS_OK)
        throw std::runtime_error(std::string(pWhat) + ": " + MCSTATUSToString(nStatus));
}

class CNullLog : public CLogFile
{
public:
    CNullLog() : CLogFile("Media", nullptr, false, false, false) {}
    int LogStringArgListX(LogLib_Priority, const char*, const char*, va_list) override { return 0; }
};

CLogFile* newMaskedLog()
{
    auto* const pLogFile = new CLogFile("Media", nullptr, false, false, false);
    pLogFile->setTraceMask(0);
    return pLogFile;
}
} // namespace

CLogFile* newDefaultLog()
{
    return new CLogFile("Media", "Media", false, true, true);
}

CLogFileRegistry* newDefaultRegistry(CLogFile* pLogFile)
{
    const char* const pNone = nullptr;
    return new CLogFileRegistry(pLogFile, "Media", pNone, pNone, pNone, 0, 1, 100, 1000, 3, 1023, 0, 1023, 0, 10000, 0,
                                1, 40000, 1, 0);
}

CLibraryUnderTest& CLibraryUnderTest::get()
{
    // Never destroyed: the event thread lives until the process ends.
    static CLibraryUnderTest* const pLibrary = new CLibraryUnderTest;
    return *pLibrary;
}

CLibraryUnderTest::CLibraryUnderTest() : m_services(this)
{
    using namespace std::chrono_literals;
    const auto limit = std::chrono::steady_clock::now() + 5s;
    while (interface().connectID() == -1)
    {
        if (std::chrono::steady_clock::now() > limit)
            throw std::runtime_error("the library does not connect");
        std::this_thread::sleep_for(1ms);
    }
}

void CLibraryUnderTest::setTrace(ETrace trace)
{
    const bool bChanged = trace != m_trace;
    m_trace = trace;
    switch (trace)
    {
    case ETrace::Off:
        if (bChanged)
            interface().replaceLogFile(newMaskedLog());
        break;
    case ETrace::Null:
        if (bChanged)
            interface().replaceLogFile(new CNullLog);
        break;
    case ETrace::Fresh: useDefaultLog(); break;
    case ETrace::Full:
        if (bChanged)
            useDefaultLog();
        for (int n = 0; n < LINES_TO_STRIDE; ++n)
            interface().trace(TRACE_INFO, LogLib_Normal, "(Info) line %d before the measurement", n);
        break;
    }
}

void CLibraryUnderTest::useDefaultLog()
{
    CLogFile* const pLogFile = newDefaultLog();
    CLogFileRegistry* const pRegistry = newDefaultRegistry(pLogFile);
    interface().replaceLogFile(pLogFile);
    interface().replaceLogFileRegistry(pRegistry);
    interface().trace(TRACE_INFO, LogLib_Normal, "(Info) the log is open");
}

CZelMediaStream* CLibraryUnderTest::openStream()
{
    CZelMediaStream* pStream = nullptr;
    require(m_services.openMediaStream(&pStream, "bench", 1), "a stream cannot be opened");
    return pStream;
}

void CLibraryUnderTest::play(CZelMediaStream* pStream, uint32_t nHowItEnds)
{
    char szFile[] = "/var/lib/prompts/hello.wav";
    require(pStream->playAddFile(szFile, 0, 60, 0, 0, nHowItEnds), "a play is not accepted");
}

void CLibraryUnderTest::OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON)
{
    if (CListener* const pListener = m_pListener)
        pListener->onCompletion(pStream, mcstatus);
}
