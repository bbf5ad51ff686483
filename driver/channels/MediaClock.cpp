// The media tick: moves all streams that play or record by 20 ms.
#include "MediaClock.h"

#include "Stream.h"

#include <algorithm>
#include <memory>

void CMediaClock::AddListener(CTickListener& listener)
{
    m_vListeners.push_back(&listener);
}

CMediaClock::CLane& CMediaClock::LaneOf(const CStream& stream)
{
    return stream.IsRealTime() ? m_realTime : m_fast;
}

void CMediaClock::Start(CStream& stream)
{
    if (stream.m_nClockIndex == SIZE_MAX)
    {
        CLane& lane = LaneOf(stream);
        stream.m_nClockIndex = lane.m_vStreams.size();
        lane.m_vStreams.push_back(&stream);
        lane.m_vSettle.reserve(lane.m_vStreams.capacity());
    }
}

void CMediaClock::Stop(CStream& stream)
{
    CLane& lane = LaneOf(stream);
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

bool CMediaClock::HasRealTime() const
{
    return !m_realTime.m_vStreams.empty() ||
           std::any_of(m_vListeners.begin(), m_vListeners.end(), [](const auto* p) { return p->NeedsTicks(); });
}

void CMediaClock::TickRealTime()
{
    for (CTickListener* pListener : m_vListeners)
    {
        pListener->BeforeTick();
    }
    Move(m_realTime);
    for (CTickListener* pListener : m_vListeners)
    {
        pListener->AfterTick();
    }
    Settle(m_realTime);
}

bool CMediaClock::TickFast()
{
    const bool bMoved = Move(m_fast);
    Settle(m_fast);
    return bMoved;
}

bool CMediaClock::Move(CLane& lane)
{
    bool bMoved = false;
    for (CStream* pStream : lane.m_vStreams)
    {
        const CStream::CAdvance advance = pStream->Advance(TICK_SAMPLES);
        bMoved |= advance.m_bMoved;
        if (advance.m_bSettle)
        {
            pStream->m_nSettleIndex = lane.m_vSettle.size();
            lane.m_vSettle.push_back(pStream);
        }
    }
    return bMoved;
}

void CMediaClock::Settle(CLane& lane)
{
    // By index: a stream that settles may stop others, and thereby take them out.
    for (std::size_t n = 0; n < lane.m_vSettle.size(); ++n)
    {
        if (lane.m_vSettle[n] != nullptr)
        {
            const std::shared_ptr<CStream> pStream = lane.m_vSettle[n]->shared_from_this();
            pStream->m_nSettleIndex = SIZE_MAX;
            lane.m_vSettle[n] = nullptr;
            pStream->Settle();
        }
    }
    lane.m_vSettle.clear();
}
