// CRacesDriver: a media driver that answers many threads, ends what it plays, and is now and then replaced.
#ifndef RACES_DRIVER_H
#define RACES_DRIVER_H

#include "MediaProtocol.h"
#include "SimRandom.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

// Accepts nearly everything; refuses, is late or silent for a moment now and then. A play ends within
// some milliseconds, a cancelled one at once. Stream and file ids are never given twice. No request is
// lost when the driver is replaced, so that nobody waits ten seconds for a response: it goes away with
// a request in hand, and answers that either well, as its last act, or with a torn record.
class CRacesDriver
{
public:
    explicit CRacesDriver(uint64_t ullSeed);
    ~CRacesDriver();
    CRacesDriver(const CRacesDriver&) = delete;
    CRacesDriver& operator=(const CRacesDriver&) = delete;

    void allowRestarts(bool bAllowed) { m_bRestarts = bAllowed; }
    unsigned int restarts() const { return m_nRestarts; }
    unsigned int connects() const { return m_nConnects; }
    uint64_t requests() const { return m_ullRequests; }

private:
    typedef std::chrono::steady_clock CClock;
    struct CPlay
    {
        structMIEVT evt;
        CClock::time_point due;
    };

    void run();
    void openRequestPipe();
    void closePipes();
    void handle(const structMICMD& request);
    void connect(const structMICMD& request);
    void accept(const structMICMD& request);
    void play(const structMICMD& request);
    void cancel(int nStreamID);
    void respond(uint32_t nSequenceNo, MIRSP mirsp, int32_t nResult);
    void goAway(const structMICMD& request);
    void endDuePlays();

    CSimRandom m_random;
    int m_nRequestPipe = -1;
    int m_nResponsePipe = -1;
    int m_nEventPipe = -1;
    int32_t m_nNextID = 1;
    std::vector<CPlay> m_vPlays;
    CClock::time_point m_restart = CClock::time_point::max();
    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bRestarts{false};
    std::atomic<unsigned int> m_nRestarts{0};
    std::atomic<unsigned int> m_nConnects{0};
    std::atomic<uint64_t> m_ullRequests{0};
    std::thread m_thread;
};

#endif
