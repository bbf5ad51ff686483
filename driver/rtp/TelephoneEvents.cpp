// Keys of a telephone as events of RTP (RFC 4733).
#include "TelephoneEvents.h"

#include <algorithm>

namespace
{
constexpr std::string_view KEYS = "0123456789*#ABCD";
constexpr uint8_t KEY_END_BIT = 0x80;
constexpr uint8_t KEY_VOLUME = 10; // -10 dBm0
constexpr uint32_t KEY_SAMPLES_PER_MS = 8;
constexpr uint32_t LONGEST_PART = 0xFFFF;
constexpr int MAX_SILENT_TICKS = 10;
constexpr unsigned TICK_MS_OF_KEYS = 20;
constexpr unsigned KEY_ENDS = 3;
} // namespace

int eventOfKey(char cKey)
{
    const size_t nEvent = KEYS.find(cKey);
    return nEvent == std::string_view::npos ? -1 : static_cast<int>(nEvent);
}

bool CKeyReceiver::onPacket(uint32_t nTimestamp, bool bMarker, std::span<const uint8_t> payload)
{
    if (payload.size() < KEY_PAYLOAD_SIZE)
        return false;
    const uint8_t nEvent = payload[0];
    const bool bEnd = (payload[1] & KEY_END_BIT) != 0;
    const uint32_t nDuration = payload[2] * 256U + payload[3];
    if (nEvent >= KEYS.size() || (m_nLastTimestamp && static_cast<int32_t>(nTimestamp - *m_nLastTimestamp) <= 0))
        return true;
    if (m_down && m_down->m_nTimestamp != nTimestamp)
    {
        if (static_cast<int32_t>(nTimestamp - m_down->m_nTimestamp) < 0)
            return true;
        if (!bMarker && m_down->m_nEvent == nEvent && nTimestamp == m_down->m_nTimestamp + LONGEST_PART)
        {
            // A key that is held down longer than one event can say.
            m_down->m_nBefore += LONGEST_PART;
            m_down->m_nTimestamp = nTimestamp;
            m_down->m_nDuration = 0;
        }
        else
        {
            end();
        }
    }
    if (!m_down)
    {
        m_down = CKey{nEvent, nTimestamp, 0, 0, 0};
        m_listener.onKeyDown(KEYS[nEvent]);
    }
    m_down->m_nDuration = std::max(m_down->m_nDuration, nDuration);
    m_down->m_nSilentTicks = 0;
    if (bEnd)
        end();
    return true;
}

void CKeyReceiver::onTick()
{
    if (m_down && ++m_down->m_nSilentTicks > MAX_SILENT_TICKS)
        end();
}

void CKeyReceiver::restart()
{
    if (m_down)
        end();
    m_nLastTimestamp.reset();
}

void CKeyReceiver::end()
{
    const CKey key = *m_down;
    m_down.reset();
    m_nLastTimestamp = key.m_nTimestamp;
    m_listener.onKeyUp(KEYS[key.m_nEvent], (key.m_nBefore + key.m_nDuration) / KEY_SAMPLES_PER_MS);
}

bool CKeySender::press(std::string_view keys, unsigned nMs, unsigned nGapMs)
{
    const bool bKeys = std::all_of(keys.begin(), keys.end(), [](char c) { return eventOfKey(c) >= 0; });
    if (!bKeys || keys.empty() || keys.size() > MAX_KEYS - m_nKeys)
        return false;
    if (m_nKeys == 0)
    {
        m_ePhase = EPhase::Gap;
        m_nPhaseMs = nGapMs; // over
    }
    for (const char c : keys)
    {
        m_acKeys[(m_nFirst + m_nKeys) % MAX_KEYS] = c;
        ++m_nKeys;
    }
    m_nMs = nMs;
    m_nGapMs = nGapMs;
    return true;
}

std::optional<CKeySender::CPacket> CKeySender::onTick(bool& bAllDone)
{
    bAllDone = false;
    if (m_nKeys == 0)
        return std::nullopt;
    const bool bBegins = m_ePhase == EPhase::Gap && m_nPhaseMs >= m_nGapMs;
    if (m_ePhase == EPhase::Gap && !bBegins)
    {
        m_nPhaseMs += TICK_MS_OF_KEYS;
        return std::nullopt;
    }
    if (bBegins)
    {
        m_ePhase = EPhase::Down;
        m_nPhaseMs = 0;
    }
    if (m_ePhase == EPhase::Down)
    {
        m_nPhaseMs += TICK_MS_OF_KEYS;
        if (m_nPhaseMs < m_nMs)
            return packet(bBegins, false);
        m_ePhase = EPhase::Up;
        m_nEndsLeft = KEY_ENDS;
    }
    const CPacket last = packet(bBegins, true);
    if (--m_nEndsLeft == 0)
    {
        m_nFirst = (m_nFirst + 1) % MAX_KEYS;
        bAllDone = --m_nKeys == 0;
        m_ePhase = EPhase::Gap;
        m_nPhaseMs = 2 * TICK_MS_OF_KEYS; // the end was told meanwhile
    }
    return last;
}

CKeySender::CPacket CKeySender::packet(bool bBegins, bool bEnd) const
{
    const uint32_t nDuration = std::min(LONGEST_PART, std::max(m_nPhaseMs, TICK_MS_OF_KEYS) * KEY_SAMPLES_PER_MS);
    return {bBegins,
            {static_cast<uint8_t>(eventOfKey(key())), static_cast<uint8_t>(KEY_VOLUME | (bEnd ? KEY_END_BIT : 0)),
             static_cast<uint8_t>(nDuration >> 8), static_cast<uint8_t>(nDuration & 0xFF)}};
}
