#include "LibraryUnderTest.h"

#include <stdexcept>
#include <string>
#include <thread>

using namespace OrvLogLib;

namespace
{
// A log may treat lines differently while they come fast.
constexpr int LINES_TO_STRIDE = 20000;

void Require(int nStatus, const char* pWhat)
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

CLogFile* NewMaskedLog()
{
    auto* const pLogFile = new CLogFile("Media", nullptr, false, false, false);
    pLogFile->setTraceMask(0);
    return pLogFile;
}
} // namespace

CLogFile* NewDefaultLog()
{
    return new CLogFile("Media", "Media", false, true, true);
}

CLogFileRegistry* NewDefaultRegistry(CLogFile* pLogFile)
{
    const char* const pNone = nullptr;
    return new CLogFileRegistry(pLogFile, "Media", pNone, pNone, pNone, 0, 1, 100, 1000, 3, 1023, 0, 1023, 0, 10000, 0,
                                1, 40000, 1, 0);
}

CLibraryUnderTest& CLibraryUnderTest::Get()
{
    // Never destroyed: the event thread lives until the process ends.
    static CLibraryUnderTest* const pLibrary = new CLibraryUnderTest;
    return *pLibrary;
}

CLibraryUnderTest::CLibraryUnderTest() : m_services(this)
{
    using namespace std::chrono_literals;
    const auto limit = std::chrono::steady_clock::now() + 5s;
    while (Interface().connectID() == -1)
    {
        if (std::chrono::steady_clock::now() > limit)
            throw std::runtime_error("the library does not connect");
        std::this_thread::sleep_for(1ms);
    }
}

void CLibraryUnderTest::SetTrace(ETrace trace)
{
    const bool bChanged = trace != m_trace;
    m_trace = trace;
    switch (trace)
    {
    case ETrace::Off:
        if (bChanged)
            Interface().replaceLogFile(NewMaskedLog());
        break;
    case ETrace::Null:
        if (bChanged)
            Interface().replaceLogFile(new CNullLog);
        break;
    case ETrace::Fresh: UseDefaultLog(); break;
    case ETrace::Full:
        if (bChanged)
            UseDefaultLog();
        for (int n = 0; n < LINES_TO_STRIDE; ++n)
            Interface().trace(TRACE_INFO, LogLib_Normal, "(Info) line %d before the measurement", n);
        break;
    }
}

void CLibraryUnderTest::UseDefaultLog()
{
    CLogFile* const pLogFile = NewDefaultLog();
    CLogFileRegistry* const pRegistry = NewDefaultRegistry(pLogFile);
    Interface().replaceLogFile(pLogFile);
    Interface().replaceLogFileRegistry(pRegistry);
    Interface().trace(TRACE_INFO, LogLib_Normal, "(Info) the log is open");
}

CZelMediaStream* CLibraryUnderTest::OpenStream()
{
    CZelMediaStream* pStream = nullptr;
    Require(m_services.openMediaStream(&pStream, "bench", 1), "a stream cannot be opened");
    return pStream;
}

void CLibraryUnderTest::Play(CZelMediaStream* pStream, std::uint32_t nHowItEnds)
{
    char szFile[] = "/var/lib/prompts/hello.wav";
    Require(pStream->playAddFile(szFile, 0, 60, 0, 0, nHowItEnds), "a play is not accepted");
}

void CLibraryUnderTest::OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON)
{
    if (CListener* const pListener = m_pListener)
        pListener->OnCompletion(pStream, mcstatus);
}
