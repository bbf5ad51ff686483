// What comes from a far end: which source is heard, in which format, and its samples in time.
#include "RtpIntake.h"

#include <algorithm>
#include <new>

void CRtpIntake::setFormats(std::span<const CFormat> formats)
{
    std::vector<CReceiveFormat> vFormats;
    for (const CFormat& format : formats)
    {
        // A stream that goes on keeps its decoder.
        const auto it = std::find_if(m_vFormats.begin(), m_vFormats.end(), [&](const CReceiveFormat& old) {
            return old.m_format.m_nPayloadType == format.m_nPayloadType && old.m_format.m_pCodec == format.m_pCodec;
        });
        if (it != m_vFormats.end())
        {
            vFormats.push_back(std::move(*it));
            m_vFormats.erase(it);
            continue;
        }
        vFormats.push_back({format, format.m_pCodec != nullptr ? format.m_pCodec->m_pMakeDecoder() : nullptr});
    }
    for (const CReceiveFormat& format : m_vFormats)
        if (m_pBuffer && format.m_pDecoder)
            m_pBuffer->forget(format.m_pDecoder.get());
    m_vFormats = std::move(vFormats);
}

const CRtpIntake::CReceiveFormat* CRtpIntake::formatOf(uint8_t nPayloadType) const
{
    const auto it = std::find_if(m_vFormats.begin(), m_vFormats.end(), [nPayloadType](const CReceiveFormat& format) {
        return format.m_format.m_nPayloadType == nPayloadType;
    });
    return it == m_vFormats.end() ? nullptr : &*it;
}

bool CRtpIntake::beginListening(size_t nDelaySamples)
{
    m_pBuffer.reset(new (std::nothrow) CJitterBuffer(nDelaySamples, m_counters));
    m_pHeldPayload.reset(m_pBuffer ? new (std::nothrow) CPayload : nullptr);
    m_bHeld = false;
    if (!m_pHeldPayload)
        m_pBuffer.reset();
    return m_pBuffer != nullptr;
}

void CRtpIntake::endListening()
{
    m_pBuffer.reset();
    m_pHeldPayload.reset();
}

void CRtpIntake::skip(size_t nSamples)
{
    if (m_pBuffer)
        m_pBuffer->skip(nSamples);
}

CRtpIntake::EArrival CRtpIntake::onRtp(const CRtpPacket& packet, uint32_t nNow)
{
    const CReceiveFormat* pFormat = formatOf(packet.m_header.m_nPayloadType);
    if (pFormat == nullptr)
    {
        ++m_counters.m_ullOtherPayloads;
        return EArrival::Unknown;
    }
    if (!m_source)
        m_source.emplace(packet.m_header);
    const int64_t llArrived = m_pBuffer ? m_pBuffer->now() : 0;
    if (packet.m_header.m_nSource == m_source->id())
    {
        const EArrival eArrival = take(packet, *pFormat, llArrived, nNow);
        if (eArrival != EArrival::Held)
        {
            m_bHeld = false;
            return eArrival;
        }
    }
    return isExpected(packet.m_header) ? switchTo(packet, nNow) : hold(packet);
}

bool CRtpIntake::isExpected(const CRtpHeader& header) const
{
    return m_bHeld && header.m_nSource == m_heldHeader.m_nSource &&
           header.m_nSequence == static_cast<uint16_t>(m_heldHeader.m_nSequence + 1);
}

CRtpIntake::EArrival CRtpIntake::hold(const CRtpPacket& packet)
{
    m_counters.m_ullStrays += m_bHeld ? 1U : 0U;
    m_bHeld = true;
    m_heldHeader = packet.m_header;
    m_llHeldArrived = m_pBuffer ? m_pBuffer->now() : 0;
    m_nHeldSize = m_pHeldPayload ? std::min(packet.m_payload.size(), m_pHeldPayload->size()) : 0;
    if (m_pHeldPayload)
        std::copy_n(packet.m_payload.begin(), m_nHeldSize, m_pHeldPayload->begin());
    return EArrival::Held;
}

CRtpIntake::EArrival CRtpIntake::switchTo(const CRtpPacket& packet, uint32_t nNow)
{
    m_bHeld = false;
    CRtpPacket held{m_heldHeader, {}};
    if (m_pHeldPayload)
        held.m_payload = std::span(*m_pHeldPayload).first(m_nHeldSize);
    if (m_source->id() == held.m_header.m_nSource)
        m_source->restart(held.m_header);
    else
        m_source.emplace(held.m_header);
    if (m_pBuffer)
        m_pBuffer->beginStream();
    // Its format may have gone meanwhile.
    if (const CReceiveFormat* pFormat = formatOf(held.m_header.m_nPayloadType))
        take(held, *pFormat, m_llHeldArrived, nNow);
    const EArrival eArrival =
        take(packet, *formatOf(packet.m_header.m_nPayloadType), m_pBuffer ? m_pBuffer->now() : 0, nNow);
    return eArrival == EArrival::Other ? EArrival::NewOther : EArrival::NewSource;
}

CRtpIntake::EArrival CRtpIntake::take(const CRtpPacket& packet, const CReceiveFormat& format, int64_t llArrived,
                                      uint32_t nNow)
{
    const CCodec* pCodec = format.m_format.m_pCodec;
    const unsigned nTicksPerSample = pCodec != nullptr ? pCodec->ticksPerSample() : 1;
    const auto place = m_source->place(packet.m_header, nNow * nTicksPerSample);
    if (!place)
        return EArrival::Held;
    if (pCodec == nullptr)
    {
        if (m_pBuffer)
            m_pBuffer->putOther(place->m_llSequence);
        return EArrival::Other;
    }
    ++m_counters.m_ullReceived;
    if (m_pBuffer)
    {
        m_pBuffer->put({place->m_llSequence, place->m_llTimestamp / nTicksPerSample, llArrived,
                        packet.m_header.m_bMarker, format.m_pDecoder.get()},
                       packet.m_payload);
    }
    return EArrival::Taken;
}
