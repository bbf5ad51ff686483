// CHostilePeer: a scripted driver that writes hostile records, and knows what becomes of them.
#ifndef HOSTILE_PEER_H
#define HOSTILE_PEER_H

#include "BytePipe.h"
#include "HostileDriver.h"
#include "ScriptedDriver.h"

#include <optional>
#include <string>

// All that the library reads as responses comes from here, and requests come one at a time: so what the
// library makes of each is known before it is written.
class CHostilePeer
{
public:
    // What an operation must return: its status, the word of the response, and for a play the status of its
    // completion, which no other one has.
    struct CFate
    {
        MICMD micmd;
        int nStatus;
        int32_t nWord;
        int nCompletion;
    };

    // nRequestsPerTear: how many requests there are for one whose answer breaks off.
    CHostilePeer(uint64_t ullSeed, uint32_t nRequestsPerTear);
    ~CHostilePeer() { m_peer.die(); } // before what it uses goes

    // The fate of the one request of the caller with this call id. The library may have an answer before its
    // request has come here: it was in the pipe already. None when the limit has passed.
    std::optional<CFate> waitFate(const std::string& strCall, std::chrono::milliseconds limit);

    bool connected() const { return m_nConnects > m_nLosses; }
    unsigned int losses() const { return m_nLosses; }
    uint64_t records() const { return m_ullRecords; }
    void setHonest() { m_bHonest = true; }

private:
    void handle(const structMICMD& request);
    void connect(const structMICMD& request);
    CFate plan(const structMICMD& request, std::vector<uint8_t>& vBytes);
    void writeEvents(const structMICMD& request, const CFate& fate);
    void keepFate(const structMICMD& request, const CFate& fate);

    CRandomChoices m_choices;
    CHostileDriver m_driver;
    const uint32_t m_nRequestsPerTear;
    CBytePipe m_pipeResponse;
    std::map<int32_t, std::string> m_mapCallByStream;
    int m_nNextCompletion = 1000;
    uint64_t m_ullEvents = 0;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, CFate> m_mapFates;
    std::atomic<unsigned int> m_nConnects{0};
    std::atomic<unsigned int> m_nLosses{0};
    std::atomic<uint64_t> m_ullRecords{0};
    std::atomic<bool> m_bHonest{false};
    CScriptedDriver m_peer{false};
};

#endif
