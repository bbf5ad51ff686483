// The media tick: moves all streams that play or record by 20 ms.
#include "MediaClock.h"

#include "Stream.h"

#include <algorithm>
#include <memory>

namespace
{
// Ticks whose packets the sockets and jitter buffers still have: 4 s.
constexpr uint64_t MAX_REMEMBERED = 200;
} // namespace

void CMediaClock::addListener(CTickListener& listener)
{
    m_vListeners.push_back(&listener);
}

CMediaClock::CLane& CMediaClock::laneOf(const CStream& stream)
{
    return stream.isRealTime() ? m_realTime : m_fast;
}

void CMediaClock::start(CStream& stream)
{
    if (stream.m_nClockIndex == SIZE_MAX)
    {
        CLane& lane = laneOf(stream);
        stream.m_nClockIndex = lane.m_vStreams.size();
        lane.m_vStreams.push_back(&stream);
        lane.m_vSettle.reserve(lane.m_vStreams.capacity());
    }
}

void CMediaClock::stop(CStream& stream)
{
    CLane& lane = laneOf(stream);
    if (stream.m_nClockIndex != SIZE_MAX)
    {
        CStream* pLast = lane.m_vStreams.back();
        lane.m_vStreams[stream.m_nClockIndex] = pLast;
        pLast->m_nClockIndex = stream.m_nClockIndex;
        lane.m_vStreams.pop_back();
        stream.m_nClockIndex = SIZE_MAX;
    }
    if (stream.m_nSettleIndex != SIZE_MAX)
    {
        lane.m_vSettle[stream.m_nSettleIndex] = nullptr;
        stream.m_nSettleIndex = SIZE_MAX;
    }
}

bool CMediaClock::hasRealTime() const
{
    return !m_realTime.m_vStreams.empty() ||
           std::any_of(
               m_vListeners.begin(), m_vListeners.end(), [](const auto* p) { return p->needsTicks(); });
}

void CMediaClock::tickRealTime()
{
    for (CTickListener* pListener : m_vListeners)
        pListener->beforeTick();
    move(m_realTime);
    for (CTickListener* pListener : m_vListeners)
        pListener->afterTick();
    settleRealTime();
}

void CMediaClock::skipRealTime(uint64_t ullTicks)
{
    if (ullTicks > MAX_REMEMBERED)
    {
        for (CTickListener* pListener : m_vListeners)
            pListener->jump(ullTicks - MAX_REMEMBERED);
        for (CStream* pStream : m_realTime.m_vStreams)
            pStream->jump((ullTicks - MAX_REMEMBERED) * TICK_SAMPLES);
        ullTicks = MAX_REMEMBERED;
    }
    for (; ullTicks > 0; --ullTicks)
    {
        for (CTickListener* pListener : m_vListeners)
            pListener->skipTick();
        move(m_realTime, true);
        settleRealTime();
    }
}

void CMediaClock::settleRealTime()
{
    settle(m_realTime);
    for (CTickListener* pListener : m_vListeners)
        pListener->settle();
}

bool CMediaClock::tickFast()
{
    const bool bMoved = move(m_fast);
    settle(m_fast);
    return bMoved;
}

bool CMediaClock::move(CLane& lane, bool bSkipped)
{
    bool bMoved = false;
    for (CStream* pStream : lane.m_vStreams)
    {
        const CStream::CAdvance advance = pStream->advance(TICK_SAMPLES, bSkipped);
        bMoved |= advance.m_bMoved;
        if (advance.m_bSettle)
        {
            pStream->m_nSettleIndex = lane.m_vSettle.size();
            lane.m_vSettle.push_back(pStream);
        }
    }
    return bMoved;
}

void CMediaClock::settle(CLane& lane)
{
    // By index: a stream that settles may stop others, and thereby take them out.
    for (size_t n = 0; n < lane.m_vSettle.size(); ++n)
    {
        if (lane.m_vSettle[n] != nullptr)
        {
            const std::shared_ptr<CStream> pStream = lane.m_vSettle[n]->shared_from_this();
            pStream->m_nSettleIndex = SIZE_MAX;
            lane.m_vSettle[n] = nullptr;
            pStream->settle();
        }
    }
    lane.m_vSettle.clear();
}
