// Cuts the bytes of the request pipe into requests, and finds the next one behind bytes that are none.
#include "RequestFramer.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace
{
constexpr std::size_t RECORD = sizeof(structMICMD);
constexpr std::uint32_t SEQUENCE_WINDOW = 4096;

template <class TWord> TWord WordAt(const unsigned char* pBytes)
{
    TWord word;
    std::memcpy(&word, pBytes, sizeof(word));
    return word;
}

bool IsCommandAt(const unsigned char* pRecord)
{
    const auto nCode = WordAt<std::int32_t>(pRecord);
    return nCode >= MICMD_CONNECT && nCode <= MICMD_RECORDGETSTATUS;
}

bool NamesPipes(const unsigned char* pRecord)
{
    constexpr std::string_view RSP = MI_RESPONSE_PIPE_PREFIX;
    constexpr std::string_view EVT = MI_EVENT_PIPE_PREFIX;
    return std::memcmp(pRecord + offsetof(structMICMD, connect.szRspPipe), RSP.data(), RSP.size()) == 0 &&
           std::memcmp(pRecord + offsetof(structMICMD, connect.szEvtPipe), EVT.data(), EVT.size()) == 0;
}
} // namespace

CRequestFramer::CRequestFramer(LatestFunction latest) : m_latest(std::move(latest)), m_vBuffer(BUFFER_BYTES) {}

bool CRequestFramer::IsNext(std::uint32_t nLatest, std::uint32_t nSequenceNo)
{
    return nSequenceNo - nLatest - 1 < SEQUENCE_WINDOW;
}

std::span<unsigned char> CRequestFramer::Room()
{
    if (m_nBegin > 0)
    {
        std::memmove(m_vBuffer.data(), m_vBuffer.data() + m_nBegin, Waiting());
        m_nEnd -= std::exchange(m_nBegin, 0);
    }
    return std::span(m_vBuffer).subspan(m_nEnd);
}

void CRequestFramer::Added(std::size_t nBytes, bool bAll)
{
    m_nEnd += nBytes;
    m_bAll = bAll;
}

bool CRequestFramer::Next(structMICMD& cmd)
{
    while (Waiting() >= RECORD)
    {
        const ELook eLook = Look(m_nBegin);
        if (eLook != ELook::Certain)
        {
            const std::size_t nCertain = NextCertain();
            if (nCertain == RECORD && !m_bAll && Waiting() < 2 * RECORD - 1)
            {
                return false; // a certain one may yet turn out to begin in here
            }
            if (nCertain < RECORD || eLook == ELook::Rubbish)
            {
                Drop(nCertain);
                continue;
            }
        }
        Take(cmd);
        return true;
    }
    if (m_bAll)
    {
        Drop(Waiting());
    }
    return false;
}

std::size_t CRequestFramer::Waiting() const
{
    return m_nEnd - m_nBegin;
}

std::size_t CRequestFramer::TakeRubbish()
{
    return std::exchange(m_nRubbish, 0);
}

// There must be a whole record at the position.
CRequestFramer::ELook CRequestFramer::Look(std::size_t nPosition) const
{
    const unsigned char* pRecord = m_vBuffer.data() + nPosition;
    const bool bCommand = IsCommandAt(pRecord);
    if (WordAt<std::int32_t>(pRecord) == MICMD_CONNECT)
    {
        return NamesPipes(pRecord) ? ELook::Certain : ELook::Possible;
    }
    const auto nLatest = m_latest(WordAt<std::int32_t>(pRecord + offsetof(structMICMD, nConnectID)));
    const auto nSequenceNo = WordAt<std::uint32_t>(pRecord + offsetof(structMICMD, nSequenceNo));
    if (bCommand && nLatest && IsNext(*nLatest, nSequenceNo))
    {
        return ELook::Certain;
    }
    return bCommand || nLatest ? ELook::Possible : ELook::Rubbish;
}

// How far ahead the first certain request begins. The size of a record when none begins within the one here.
std::size_t CRequestFramer::NextCertain() const
{
    const std::size_t nLast = std::min(RECORD - 1, Waiting() - RECORD);
    for (std::size_t nAhead = 1; nAhead <= nLast; ++nAhead)
    {
        const std::size_t nPosition = m_nBegin + nAhead;
        if (IsCommandAt(m_vBuffer.data() + nPosition) && Look(nPosition) == ELook::Certain)
        {
            return nAhead;
        }
    }
    return RECORD;
}

void CRequestFramer::Take(structMICMD& cmd)
{
    std::memcpy(&cmd, m_vBuffer.data() + m_nBegin, RECORD);
    m_nBegin += RECORD;
}

void CRequestFramer::Drop(std::size_t nBytes)
{
    m_nBegin += nBytes;
    m_nRubbish += nBytes;
}
