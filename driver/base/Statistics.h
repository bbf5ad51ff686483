// Counts what the driver does.
#ifndef DRIVER_STATISTICS_H
#define DRIVER_STATISTICS_H

#include "MediaProtocol.h"
#include "RtpCounters.h"

#include <nlohmann/json.hpp>

#include <array>
#include <chrono>
#include <cstdint>

// How often a time was up to 1, 2, 5, 10, 20, 50, 100 milliseconds, or more.
class CTimeHistogram
{
public:
    using Duration = std::chrono::steady_clock::duration;

    static constexpr std::array<int, 7> LIMITS_MS = {1, 2, 5, 10, 20, 50, 100};

    // Neither allocates nor locks. A negative time counts as zero.
    void add(Duration time);

    uint64_t count() const;
    uint64_t countAbove(int nLimitMs) const; // one of LIMITS_MS
    nlohmann::ordered_json toJson() const;

private:
    std::array<uint64_t, LIMITS_MS.size() + 1> m_vCounts = {};
    Duration m_max = {};
};

// The counters only rise. They are the core's to count; nothing here does anything else.
struct CStatistics
{
    // A tick that is later than this is a late one.
    static constexpr int LATE_MS = 5;

    // For each request record, whatever becomes of it. Codes that are no command are counted together.
    void onRequest(MICMD micmd);

    // For each media tick: how long after its time it began, and how long it took. Neither allocates
    // nor locks.
    void onTick(std::chrono::steady_clock::duration lateness, std::chrono::steady_clock::duration duration);

    // Ticks that were too late to be made up for.
    void onTicksSkipped(uint64_t ullTicks) { m_ullTicksSkipped += ullTicks; }

    nlohmann::ordered_json toJson(std::chrono::steady_clock::time_point now) const;

    // Set when the driver starts.
    std::chrono::system_clock::time_point m_startTime = std::chrono::system_clock::now();
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();

    std::array<uint64_t, COMMAND_COUNT + 1> m_vRequests = {}; // by code; 0: no command
    uint64_t m_ullRefused = 0;                              // answered with a refusal
    uint64_t m_ullDropped = 0;                              // of nobody who could be answered
    uint64_t m_ullResponsesSent = 0;
    uint64_t m_ullResponsesLost = 0; // the pipe was full or gone
    uint64_t m_ullEventsSent = 0;
    uint64_t m_ullEventsDropped = 0; // with their client
    uint64_t m_ullClientsConnected = 0;
    uint64_t m_ullClientsDropped = 0; // that did not disconnect themselves
    uint64_t m_ullTicksSkipped = 0;
    CTimeHistogram m_tickLateness;
    CTimeHistogram m_tickDuration;

    // Counted elsewhere, and how it is now: filled when somebody asks.
    uint64_t m_ullRubbishBytes = 0; // in the request pipe, no record
    CRtpCounters m_rtp;
    struct CNow
    {
        size_t m_nClients = 0;
        size_t m_nStreams = 0;
        size_t m_nPlaying = 0;
        size_t m_nRecording = 0;
        size_t m_nWaitingEvents = 0;
        size_t m_nClips = 0;
        size_t m_nClipBytes = 0;
        size_t m_nRtpPorts = 0;
    };
    CNow m_now;
};

#endif
