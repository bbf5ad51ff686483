// Puts the packets of an RTP stream into order and time, for as long as a recording listens to it.
#include "JitterBuffer.h"

#include "G711.h"

#include <speex/speex_jitter.h>

#include <algorithm>

namespace
{
constexpr size_t LIBRARY_CAPACITY = 200;        // packets that it holds at most
constexpr size_t SLOTS = LIBRARY_CAPACITY + 2;  // and the one that comes in, and the one that is played
constexpr spx_int32_t STEP = RTP_SAMPLES;       // by which the delay grows
constexpr spx_int32_t LATE_COST = 160;          // delay that one packet in a hundred is worth, in samples
constexpr int32_t MAX_DELAY_GROWTH = 25 * STEP; // packets later than that are none to wait for
constexpr int MAX_MISSES_IN_A_ROW = 10;         // then the stream has paused. The library gives up after 20

// Time a - b on the clock of the stream, which wraps.
int32_t difference(uint32_t a, uint32_t b)
{
    return static_cast<int32_t>(a - b);
}

void set(JitterBuffer* pJitter, int nRequest, spx_int32_t nValue)
{
    jitter_buffer_ctl(pJitter, nRequest, &nValue);
}
} // namespace

void CJitterBuffer::CDestroy::operator()(JitterBuffer_* pJitter) const
{
    jitter_buffer_destroy(pJitter);
}

std::unique_ptr<CJitterBuffer> CJitterBuffer::create(size_t nDelaySamples, CRtpCounters& counters)
{
    std::unique_ptr<CJitterBuffer> pBuffer(new CJitterBuffer(nDelaySamples, counters));
    return pBuffer->m_pJitter ? std::move(pBuffer) : nullptr;
}

CJitterBuffer::CJitterBuffer(size_t nDelaySamples, CRtpCounters& counters)
    : m_nDelaySamples(nDelaySamples), m_counters(counters), m_vSlots(SLOTS), m_pJitter(jitter_buffer_init(STEP)),
      m_nSilenceLeft(nDelaySamples)
{
    m_vFree.reserve(SLOTS);
    for (CSlot& slot : m_vSlots)
    {
        slot.m_pOwner = this;
        m_vFree.push_back(&slot);
    }
    if (m_pJitter)
    {
        jitter_buffer_ctl(m_pJitter.get(), JITTER_BUFFER_SET_DESTROY_CALLBACK, reinterpret_cast<void*>(&release));
        set(m_pJitter.get(), JITTER_BUFFER_SET_CONCEALMENT_SIZE, 1);
        set(m_pJitter.get(), JITTER_BUFFER_SET_LATE_COST, LATE_COST);
        // Asking once by hand ends the adjustments by itself, which leave samples out.
        jitter_buffer_update_delay(m_pJitter.get(), nullptr, nullptr);
    }
}

CJitterBuffer::~CJitterBuffer() = default;

void CJitterBuffer::release(void* pSlot)
{
    CSlot* pReleased = static_cast<CSlot*>(pSlot);
    pReleased->m_pOwner->m_vFree.push_back(pReleased);
}

void CJitterBuffer::put(const CRtpHeader& header, std::span<const uint8_t> payload)
{
    if (m_bSourceKnown && header.m_nSource != m_nSource)
        restart();
    m_bSourceKnown = true;
    m_nSource = header.m_nSource;

    CRtpHeader block = header;
    while (!payload.empty())
    {
        const size_t nCount = std::min(payload.size(), RTP_SAMPLES);
        putBlock(block, payload.first(nCount));
        payload = payload.subspan(nCount);
        block.m_nTimestamp += static_cast<uint32_t>(nCount);
    }
}

void CJitterBuffer::putBlock(const CRtpHeader& header, std::span<const uint8_t> samples)
{
    bool bTaken = true;
    m_bPacketHere = true;
    if (m_bInSync)
    {
        const auto nNow = static_cast<uint32_t>(jitter_buffer_get_pointer_timestamp(m_pJitter.get()));
        const int32_t nBehind = difference(nNow, header.m_nTimestamp + static_cast<uint32_t>(samples.size()));
        m_counters.m_ullLate += nBehind >= 0 ? 1 : 0;
        if (nBehind > MAX_DELAY_GROWTH)
            return;
        // The library learns from packets that are late by more than a step, but leaves them to the caller.
        bTaken = nBehind <= STEP;
    }
    CSlot* pSlot = m_vFree.back();
    m_vFree.pop_back();
    std::copy(samples.begin(), samples.end(), pSlot->m_samples.begin());

    JitterBufferPacket packet{};
    packet.data = reinterpret_cast<char*>(pSlot);
    packet.len = static_cast<spx_uint32_t>(samples.size());
    packet.timestamp = header.m_nTimestamp;
    packet.span = packet.len;
    packet.sequence = header.m_nSequence;
    jitter_buffer_put(m_pJitter.get(), &packet);
    if (!bTaken)
        release(pSlot);
}

void CJitterBuffer::get(std::span<uint8_t> samples)
{
    while (!samples.empty())
    {
        if (!m_bPacketHere)
        {
            std::fill(samples.begin(), samples.end(), ULAW_SILENCE);
            break;
        }
        const size_t nTaken = takeAtHand(samples);
        if (nTaken == 0)
            fetch(samples.size());
        samples = samples.subspan(nTaken);
    }
    const size_t nLeft = m_nSilenceLeft + m_playingLeft.size();
    jitter_buffer_remaining_span(m_pJitter.get(), static_cast<spx_uint32_t>(nLeft));
}

size_t CJitterBuffer::takeAtHand(std::span<uint8_t> samples)
{
    if (m_nSilenceLeft > 0)
    {
        const size_t nCount = std::min(samples.size(), m_nSilenceLeft);
        std::fill_n(samples.begin(), nCount, ULAW_SILENCE);
        m_nSilenceLeft -= nCount;
        return nCount;
    }
    const size_t nCount = std::min(samples.size(), m_playingLeft.size());
    std::copy_n(m_playingLeft.begin(), nCount, samples.begin());
    m_playingLeft = m_playingLeft.subspan(nCount);
    if (m_playingLeft.empty() && m_pPlaying != nullptr)
        release(std::exchange(m_pPlaying, nullptr));
    return nCount;
}

void CJitterBuffer::fetch(size_t nWanted)
{
    JitterBufferPacket packet{};
    spx_int32_t nOffset = 0;
    m_bInSync = true;
    const int nResult = jitter_buffer_get(m_pJitter.get(), &packet, static_cast<spx_int32_t>(nWanted), &nOffset);
    if (nResult == JITTER_BUFFER_OK)
    {
        m_counters.m_ullLost += std::exchange(m_ullGaps, 0);
        m_nMissesInARow = 0;
        m_pPlaying = static_cast<CSlot*>(static_cast<void*>(packet.data));
        m_playingLeft = std::span(m_pPlaying->m_samples).first(packet.len);
        // The packet begins after now, or before it where it overlaps with what was played.
        m_nSilenceLeft = static_cast<size_t>(std::max(nOffset, 0));
        m_playingLeft = m_playingLeft.subspan(static_cast<size_t>(std::max(-nOffset, 0)));
        return;
    }
    m_nSilenceLeft = std::max<size_t>(packet.span, 1);
    m_ullGaps += nResult == JITTER_BUFFER_MISSING ? 1 : 0;
    ++m_nMissesInARow;
    if (m_nMissesInARow >= MAX_MISSES_IN_A_ROW)
        restart();
}

void CJitterBuffer::restart()
{
    jitter_buffer_reset(m_pJitter.get());
    m_bPacketHere = false;
    m_bInSync = false;
    m_nMissesInARow = 0;
    m_ullGaps = 0; // a pause
    m_nSilenceLeft = m_nDelaySamples;
    m_playingLeft = {};
    if (m_pPlaying != nullptr)
        release(std::exchange(m_pPlaying, nullptr));
}
