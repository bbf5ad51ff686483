// The library as the probes have it: one services object, connected to the peer, with a trace that can be switched.
#ifndef LIBRARY_UNDER_TEST_H
#define LIBRARY_UNDER_TEST_H

#include "MIntf.h"
#include "PeerProtocol.h"
#include "ZelMediaServices.h"

#include <atomic>
#include <cstdint>

enum class ETrace
{
    Off,   // mask 0
    Full,  // the default log file with its default settings, in full stride
    Fresh, // the same, just opened
    Null   // every line reaches the log file, which drops it unformatted
};

// A log file as the library itself makes it: each line is written into the default file. The caller owns both.
OrvLogLib::CLogFile* newDefaultLog();
OrvLogLib::CLogFileRegistry* newDefaultRegistry(OrvLogLib::CLogFile* pLogFile);

class CLibraryUnderTest : private CZelMediaStreamCompletionHandler
{
public:
    // Learns of every completion, on the library's event thread.
    class CListener
    {
    public:
        virtual ~CListener() = default;
        virtual void onCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus) = 0;
    };

    // Made and connected when first asked for; lives as long as the process. As long as nobody has asked there is no
    // library in this process, and a child may make one of its own. Throws std::runtime_error.
    static CLibraryUnderTest& get();

    // Costs something, so call it where no time is taken, but before each measurement.
    void setTrace(ETrace trace);

    // While no completion is on its way. Null: nobody.
    void setListener(CListener* pListener) { m_pListener = pListener; }

    CZelMediaServices& services() { return m_services; }
    CMIntf& interface() { return *g_pmintf; }

    // As the application's calls of the same names; throw std::runtime_error when they fail.
    CZelMediaStream* openStream();
    void closeStream(CZelMediaStream* pStream) { m_services.closeMediaStream(pStream); }
    void play(CZelMediaStream* pStream, uint32_t nHowItEnds); // PEER_PLAY_...

private:
    CLibraryUnderTest();
    void useDefaultLog();
    void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) override;

    std::atomic<CListener*> m_pListener = nullptr;
    CZelMediaServices m_services;
    ETrace m_trace = ETrace::Full;
};

#endif
