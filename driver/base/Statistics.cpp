// Counts what the driver does.
#include "Statistics.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <numeric>
#include <string>

namespace
{
double milliseconds(std::chrono::steady_clock::duration time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

std::string timeText(std::chrono::system_clock::time_point time)
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(seconds)));
}
} // namespace

void CTimeHistogram::add(Duration time)
{
    size_t nBucket = 0;
    while (nBucket < LIMITS_MS.size() && time > std::chrono::milliseconds(LIMITS_MS[nBucket]))
        ++nBucket;
    ++m_vCounts[nBucket];
    m_max = std::max(m_max, time);
}

uint64_t CTimeHistogram::count() const
{
    return std::accumulate(m_vCounts.begin(), m_vCounts.end(), uint64_t{0});
}

uint64_t CTimeHistogram::countAbove(int nLimitMs) const
{
    uint64_t ullCount = m_vCounts.back();
    for (size_t nBucket = 0; nBucket < LIMITS_MS.size(); ++nBucket)
        ullCount += LIMITS_MS[nBucket] > nLimitMs ? m_vCounts[nBucket] : 0;
    return ullCount;
}

nlohmann::ordered_json CTimeHistogram::toJson() const
{
    nlohmann::ordered_json json;
    for (size_t nBucket = 0; nBucket < LIMITS_MS.size(); ++nBucket)
        json[fmt::format("up_to_{}_ms", LIMITS_MS[nBucket])] = m_vCounts[nBucket];
    json["more"] = m_vCounts.back();
    json["max_ms"] = milliseconds(m_max);
    return json;
}

void CStatistics::onRequest(MICMD micmd)
{
    const bool bCommand = micmd > MICMD_NULL && static_cast<size_t>(micmd) < m_vRequests.size();
    ++m_vRequests[bCommand ? static_cast<size_t>(micmd) : 0];
}

void CStatistics::onTick(std::chrono::steady_clock::duration lateness, std::chrono::steady_clock::duration duration)
{
    m_tickLateness.add(lateness);
    m_tickDuration.add(duration);
}

nlohmann::ordered_json CStatistics::toJson(std::chrono::steady_clock::time_point now) const
{
    nlohmann::ordered_json requests;
    for (const CCommandInfo& command : aCommands)
        requests[command.m_pszShortName] = m_vRequests[static_cast<size_t>(command.m_micmd)];
    requests["unknown"] = m_vRequests[0];

    return {
        {"started", timeText(m_startTime)},
        {"up_s", std::chrono::duration_cast<std::chrono::seconds>(now - m_start).count()},
        {"now",
         {{"clients", m_now.m_nClients},
          {"streams", m_now.m_nStreams},
          {"playing", m_now.m_nPlaying},
          {"recording", m_now.m_nRecording},
          {"waiting_events", m_now.m_nWaitingEvents},
          {"clips", m_now.m_nClips},
          {"clip_bytes", m_now.m_nClipBytes},
          {"rtp_ports", m_now.m_nRtpPorts}}},
        {"clients", {{"connected", m_ullClientsConnected}, {"dropped", m_ullClientsDropped}}},
        {"requests", std::move(requests)},
        {"refused", m_ullRefused},
        {"dropped", m_ullDropped},
        {"rubbish_bytes", m_ullRubbishBytes},
        {"responses", {{"sent", m_ullResponsesSent}, {"lost", m_ullResponsesLost}}},
        {"events", {{"sent", m_ullEventsSent}, {"dropped", m_ullEventsDropped}}},
        {"rtp",
         {{"sent", m_rtp.m_ullSent},
          {"send_errors", m_rtp.m_ullSendErrors},
          {"received", m_rtp.m_ullReceived},
          {"receive_errors", m_rtp.m_ullReceiveErrors},
          {"strangers", m_rtp.m_ullStrangers},
          {"malformed", m_rtp.m_ullMalformed},
          {"other_payloads", m_rtp.m_ullOtherPayloads},
          {"strays", m_rtp.m_ullStrays},
          {"duplicates", m_rtp.m_ullDuplicates},
          {"late", m_rtp.m_ullLate},
          {"lost", m_rtp.m_ullLost}}},
        {"ticks",
         {{"count", m_tickLateness.count()},
          {"late", m_tickLateness.countAbove(LATE_MS)},
          {"skipped", m_ullTicksSkipped},
          {"lateness", m_tickLateness.toJson()},
          {"duration", m_tickDuration.toJson()}}},
    };
}
