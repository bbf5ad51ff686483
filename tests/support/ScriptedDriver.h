// A media driver for tests: owns the request pipe, keeps every request, answers by rule.
#ifndef SCRIPTED_DRIVER_H
#define SCRIPTED_DRIVER_H

#include "MediaProtocol.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

// Without rules it accepts everything, as the table of commands has it: connection ids from 1001, stream
// ids from 1, file ids from 501, recorded time 1234 ms, record status 1, 0 for the rest. Plays and
// records end when the test says so, with done(). It serves the client that connected last.
class CScriptedDriver
{
public:
    // Answers, or does not answer, one request. Runs on the driver's thread.
    typedef std::function<void(const structMICMD& request)> Rule;
    // Comes before those: whether it has dealt with the request.
    typedef std::function<bool(const structMICMD& request)> Gate;

    explicit CScriptedDriver(bool bStart = true);
    ~CScriptedDriver(); // like die()
    CScriptedDriver(const CScriptedDriver&) = delete;
    CScriptedDriver& operator=(const CScriptedDriver&) = delete;

    // Makes a fresh request pipe and begins to read it. die() closes everything at once, as a
    // killed process does; requests in the pipe are lost. Rules and records stay.
    void start();
    void die();
    // Stops and continues reading, as a stopped process does. Requests stay in the pipe.
    void freeze();
    void thaw();

    // On its thread, from a rule: another driver takes its place after a pause, and what it does last is done
    // when nobody reads the request pipe any more.
    void replace(const std::function<void()>& last, std::chrono::milliseconds pause);

    // To be set before it starts: what comes before the rules, what is done between requests, every
    // millisecond at least, and whether requests are kept.
    void onEveryRequest(Gate gate) { m_gate = std::move(gate); }
    void onTurn(std::function<void()> turn) { m_turn = std::move(turn); }
    void keepNoRequests() { m_bKeep = false; }

    // Replaces the answer to a command; acceptAgain undoes it.
    void onCommand(MICMD micmd, Rule rule);
    void acceptAgain(MICMD micmd);
    void refuse(MICMD micmd); // MIRSP_STATUS with 1
    void ignore(MICMD micmd); // no answer

    // For rules, and for answers out of turn.
    void accept(const structMICMD& request);
    void acceptWith(const structMICMD& request, int32_t nResult);
    void respond(const structMICMD& request, MIRSP mirsp, int32_t nResult);
    void respondTo(uint32_t nSequenceNo, MIRSP mirsp, int32_t nResult);
    void respondRaw(const void* pBytes, size_t nBytes);
    void done(const structMICMD& request, int32_t nStatus = 0); // MIEVT_DONE of a play or record
    void event(int32_t nStreamID, uint32_t nSequenceNo, int32_t nStatus, MIEVT mievt = MIEVT_DONE);
    void eventRaw(const void* pBytes, size_t nBytes);
    bool tryEvent(const structMIEVT& evt); // false when the pipe has no room

    // Every request read so far, in order; those of one command; the n-th of a command (from 0),
    // waited for. A request that does not come in time fails the test.
    std::vector<structMICMD> requests() const;
    std::vector<structMICMD> requests(MICMD micmd) const;
    size_t count(MICMD micmd) const { return requests(micmd).size(); }
    structMICMD waitRequest(MICMD micmd, size_t nIndex = 0);
    bool waitCount(MICMD micmd, size_t nCount, std::chrono::milliseconds limit = std::chrono::seconds(30)) const;
    int32_t connectID() const { return m_nConnectID; } // of the last accepted connect

private:
    void makeRequestPipe();
    void closeRequestPipe();
    void run();
    void handle(const structMICMD& request);
    void openClient(const structMICMD& request);
    void closeClient();

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<structMICMD> m_vRequests;
    std::map<MICMD, Rule> m_mapRules;
    Gate m_gate;
    std::function<void()> m_turn;
    bool m_bKeep = true;

    std::mutex m_mutexPipes;
    int m_nRequestPipe = -1;
    int m_nResponsePipe = -1;
    int m_nEventPipe = -1;
    std::thread m_thread;
    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bFrozen{false};
    std::atomic<int32_t> m_nConnectID{1000};
    int32_t m_nNextStreamID = 1;
    int32_t m_nNextFileID = 501;
};

#endif
