// Puts the packets of RTP streams into order and time.
#include "JitterBuffer.h"

#include "G711.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <utility>

namespace
{
constexpr int64_t STEP = 160;
constexpr int64_t PAUSE = 1600;      // without a packet; what comes then has a delay of its own
constexpr int64_t JUMP = 1600;       // beside the time that is expected is no jitter,
constexpr int64_t MARKED_JUMP = 480; // and where a talkspurt begins, less is to be made up for
constexpr int64_t MAX_OVERTAKEN = 100;
constexpr int LATE_SCORE = 50;     // of a late packet; each that is not takes one off
constexpr int TOO_LATE_SCORE = 90; // two of them within some ten packets
constexpr int WINDOW = 512;        // packets after which delay and clock are looked at
constexpr int CALM_WINDOWS = 3;    // before the delay shrinks

// The sample whose neighbour can be left out or doubled with the least to be heard.
size_t mostLikeNext(std::span<const uint8_t> samples)
{
    size_t nBest = 0;
    int nLeast = INT_MAX;
    for (size_t n = 0; n + 1 < samples.size(); ++n)
    {
        const int nDifference = std::abs(decodeULaw(samples[n]) - decodeULaw(samples[n + 1]));
        if (nDifference < nLeast)
        {
            nBest = n;
            nLeast = nDifference;
        }
    }
    return nBest;
}
} // namespace

CJitterBuffer::CJitterBuffer(size_t nDelaySamples, CRtpCounters& counters)
    : m_llDelay(static_cast<int64_t>(nDelaySamples)), m_counters(counters)
{
}

int64_t CJitterBuffer::numberOf(int64_t llSequence)
{
    if (m_bNewStream)
    {
        // There is room for those that are overtaken by the first one.
        m_llFirst = m_llHighest + MAX_OVERTAKEN;
        m_llNumberOffset = m_llFirst - llSequence;
        m_bNewStream = false;
    }
    return llSequence + m_llNumberOffset;
}

void CJitterBuffer::put(const CArrival& arrival, std::span<const uint8_t> payload)
{
    const auto llSamples = static_cast<int64_t>(arrival.m_pDecoder->samplesIn(payload));
    if (llSamples == 0)
    {
        ++m_counters.m_ullMalformed;
        return;
    }
    const int64_t llSequence = numberOf(arrival.m_llSequence);
    const bool bNewest = llSequence > m_llHighest;
    CSlot& slot = slotOf(llSequence);
    if (slot.m_llSequence == llSequence)
    {
        ++m_counters.m_ullDuplicates;
        return;
    }
    if (!bNewest && (llSequence < m_llNext || llSequence + static_cast<int64_t>(SLOTS) <= m_llHighest))
    {
        ++m_counters.m_ullLate;
        return;
    }
    if (m_bNewTimes || (bNewest && (!m_bRunning || hasJumped(arrival, llSequence, llSamples))))
        place(arrival.m_llArrived, arrival.m_llTime);
    const int64_t llLateness = m_llNow - (arrival.m_llTime + m_llTimeOffset);
    noteMargin(-llLateness);
    if (llLateness > 0 && !m_bSkipped)
        makeTimeFor(llLateness);
    const int64_t llAt = arrival.m_llTime + m_llTimeOffset;
    if (bNewest)
    {
        m_llHighest = llSequence;
        m_llHighestEnd = llAt + llSamples;
    }
    m_counters.m_ullLost += slot.m_nSize > 0 ? 1U : 0U; // there is no room for as many
    slot = {llSequence, llAt, 0, 0, arrival.m_pDecoder};
    if (llAt + llSamples <= m_llNow)
    {
        ++m_counters.m_ullLate;
        return;
    }
    store(slot, payload);
}

void CJitterBuffer::putOther(int64_t llSequence)
{
    llSequence = numberOf(llSequence);
    CSlot& slot = slotOf(llSequence);
    if (slot.m_llSequence < llSequence)
        slot = {llSequence, 0, 0, 0, nullptr};
    if (llSequence > m_llHighest)
        m_llHighest = llSequence;
}

// A loss takes the times along with the numbers; what does neither and comes at the wrong time is a jump.
bool CJitterBuffer::hasJumped(const CArrival& arrival, int64_t llSequence, int64_t llSamples) const
{
    const int64_t llAt = arrival.m_llTime + m_llTimeOffset;
    const int64_t llExpected = m_llHighestEnd + (llSequence - m_llHighest - 1) * llSamples;
    const int64_t llMargin = llAt - m_llNow;
    const int64_t llJump = arrival.m_bMarker ? MARKED_JUMP : JUMP;
    return llAt != llExpected && (llMargin > delay() + llJump || llMargin < -llJump);
}

// What waits is played before.
void CJitterBuffer::place(int64_t llArrived, int64_t llTime)
{
    const int64_t llFree = m_bRunning ? m_llHighestEnd : m_llNow;
    m_llTimeOffset = std::max({llFree, llArrived + delay(), m_llNow}) - llTime;
    m_bNewTimes = false;
    m_bRunning = true;
    m_llStarved = 0;
    m_nWindow = 0;
    m_llToLeaveOut = 0;
    m_llMinMargin = INT64_MAX;
    m_llMaxMargin = INT64_MIN;
}

// Makes the delay grow when packets are late too often.
void CJitterBuffer::makeTimeFor(int64_t llLateness)
{
    m_nLateScore += LATE_SCORE;
    m_nCalmWindows = 0;
    const int64_t llGrowth = (llLateness + STEP - 1) / STEP * STEP;
    if (m_nLateScore < TOO_LATE_SCORE || m_llGrowth + llGrowth > MAX_GROWTH)
        return;
    m_nLateScore = 0;
    m_llGrowth += llGrowth;
    // Everything that waits is later by as much.
    m_llTimeOffset += llGrowth;
    m_llHighestEnd += llGrowth;
    m_llLeftAt += llGrowth;
    for (CSlot& slot : m_slots)
        slot.m_llAt += slot.m_nSize > 0 ? llGrowth : 0;
}

void CJitterBuffer::noteMargin(int64_t llMargin)
{
    m_nLateScore = std::max(0, m_nLateScore - 1);
    m_llMinMargin = std::min(m_llMinMargin, llMargin);
    m_llMaxMargin = std::max(m_llMaxMargin, llMargin);
    if (++m_nWindow < WINDOW)
        return;
    m_nCalmWindows = m_llGrowth > 0 && m_llMinMargin >= STEP ? m_nCalmWindows + 1 : 0;
    if (m_nCalmWindows >= CALM_WINDOWS)
    {
        m_llGrowth -= STEP;
        m_nCalmWindows = 0;
    }
    if (m_llMinMargin >= delay() + STEP)
        m_llToLeaveOut = m_llMinMargin - delay();
    else if (m_llMaxMargin <= delay() - STEP)
        m_llToLeaveOut = m_llMaxMargin - delay();
    m_nWindow = 0;
    m_llMinMargin = INT64_MAX;
    m_llMaxMargin = INT64_MIN;
}

void CJitterBuffer::store(CSlot& slot, std::span<const uint8_t> payload)
{
    // In one piece.
    if (m_ullBytesPut % BYTES + payload.size() > BYTES)
        m_ullBytesPut += BYTES - m_ullBytesPut % BYTES;
    slot.m_ullBytes = m_ullBytesPut;
    slot.m_nSize = static_cast<uint32_t>(payload.size());
    std::copy(payload.begin(), payload.end(), m_bytes.begin() + static_cast<ptrdiff_t>(m_ullBytesPut % BYTES));
    m_ullBytesPut += payload.size();
}

void CJitterBuffer::get(std::span<uint8_t> samples)
{
    const int nLeaveOut = m_llToLeaveOut > 0 ? 1 : m_llToLeaveOut < 0 ? -1 : 0;
    if (nLeaveOut == 0 || samples.size() != static_cast<size_t>(STEP))
    {
        read(samples);
        return;
    }
    std::array<uint8_t, STEP + 1> abRead;
    const auto nRead = static_cast<size_t>(STEP + nLeaveOut);
    read(std::span(abRead).first(nRead));
    m_llToLeaveOut -= nLeaveOut;
    const size_t nLike = mostLikeNext(std::span(abRead).first(nRead));
    std::copy_n(abRead.begin(), nLike + 1, samples.begin());
    const size_t nGoOn = nLeaveOut > 0 ? nLike + 2 : nLike;
    std::copy(abRead.begin() + static_cast<ptrdiff_t>(nGoOn), abRead.begin() + static_cast<ptrdiff_t>(nRead),
              samples.begin() + static_cast<ptrdiff_t>(nLike + 1));
}

void CJitterBuffer::read(std::span<uint8_t> samples)
{
    while (!samples.empty())
    {
        if (m_left.empty())
            fetch(samples.size());
        const size_t nGiven = give(samples);
        m_llNow += static_cast<int64_t>(nGiven);
        samples = samples.subspan(nGiven);
    }
    m_bRunning = m_bRunning && m_llStarved < PAUSE;
    m_bSkipped = false;
}

size_t CJitterBuffer::give(std::span<uint8_t> samples)
{
    if (!m_left.empty() && m_llLeftAt <= m_llNow)
    {
        const size_t nCount = std::min(samples.size(), m_left.size());
        std::copy_n(m_left.begin(), nCount, samples.begin());
        m_left = m_left.subspan(nCount);
        m_llLeftAt += static_cast<int64_t>(nCount);
        return nCount;
    }
    const size_t nCount =
        m_left.empty() ? samples.size() : std::min(samples.size(), static_cast<size_t>(m_llLeftAt - m_llNow));
    std::fill_n(samples.begin(), nCount, ULAW_SILENCE);
    m_llStarved += m_llNext > m_llHighest ? static_cast<int64_t>(nCount) : 0;
    return nCount;
}

// The next packet, if it begins within the samples that are wanted: one before it may yet come.
void CJitterBuffer::fetch(size_t nWanted)
{
    m_llNext = std::max(m_llNext, m_llHighest + 1 - static_cast<int64_t>(SLOTS));
    uint64_t ullMissing = 0;
    for (int64_t llSequence = m_llNext; llSequence <= m_llHighest && m_left.empty(); ++llSequence)
    {
        CSlot& slot = slotOf(llSequence);
        ullMissing += slot.m_llSequence != llSequence && llSequence > m_llFirst ? 1U : 0U;
        if (slot.m_llSequence != llSequence || slot.m_nSize == 0)
            continue;
        if (slot.m_llAt >= m_llNow + static_cast<int64_t>(nWanted))
            return;
        m_counters.m_ullLost += std::exchange(ullMissing, 0);
        m_llNext = llSequence + 1;
        decode(slot);
    }
}

void CJitterBuffer::decode(CSlot& slot)
{
    const size_t nSize = slot.m_nSize;
    slot.m_nSize = 0;
    if (slot.m_ullBytes + BYTES < m_ullBytesPut)
    {
        ++m_counters.m_ullLost; // others came over it
        return;
    }
    const size_t nSamples =
        slot.m_pDecoder->decode(std::span(m_bytes).subspan(slot.m_ullBytes % BYTES, nSize), m_decoded);
    const auto nPassed =
        static_cast<size_t>(std::clamp<int64_t>(m_llNow - slot.m_llAt, 0, static_cast<int64_t>(nSamples)));
    m_left = std::span(m_decoded).first(nSamples).subspan(nPassed);
    m_llLeftAt = slot.m_llAt + static_cast<int64_t>(nPassed);
    m_llStarved = 0;
}

void CJitterBuffer::skip(size_t nSamples)
{
    m_bSkipped = true;
    m_llNow += static_cast<int64_t>(nSamples);
    const auto nPassed =
        static_cast<size_t>(std::clamp<int64_t>(m_llNow - m_llLeftAt, 0, static_cast<int64_t>(m_left.size())));
    m_left = m_left.subspan(nPassed);
    m_llLeftAt += static_cast<int64_t>(nPassed);
}

void CJitterBuffer::forget(const CDecoder* pDecoder)
{
    for (CSlot& slot : m_slots)
    {
        if (slot.m_pDecoder == pDecoder)
        {
            slot.m_nSize = 0;
            slot.m_pDecoder = nullptr;
        }
    }
}
