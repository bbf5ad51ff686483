// Cuts the bytes of the request pipe into requests, and finds the next one behind bytes that are none.
#include "RequestFramer.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace
{
constexpr size_t RECORD = sizeof(structMICMD);
constexpr uint32_t LIKELY_NUMBERS = 64;

template <class TWord> TWord wordAt(const unsigned char* pBytes)
{
    TWord word;
    std::memcpy(&word, pBytes, sizeof(word));
    return word;
}

bool isCommandAt(const unsigned char* pRecord)
{
    return commandInfo(wordAt<int32_t>(pRecord)) != nullptr;
}

bool namesPipes(const unsigned char* pRecord)
{
    constexpr std::string_view RSP = MI_RESPONSE_PIPE_PREFIX;
    constexpr std::string_view EVT = MI_EVENT_PIPE_PREFIX;
    return std::memcmp(pRecord + offsetof(structMICMD, connect.szRspPipe), RSP.data(), RSP.size()) == 0 &&
           std::memcmp(pRecord + offsetof(structMICMD, connect.szEvtPipe), EVT.data(), EVT.size()) == 0;
}
} // namespace

CRequestFramer::CRequestFramer(LatestFunction latest) : m_latest(std::move(latest)), m_vBuffer(BUFFER_BYTES) {}

std::span<unsigned char> CRequestFramer::room()
{
    if (m_nBegin > 0)
    {
        std::memmove(m_vBuffer.data(), m_vBuffer.data() + m_nBegin, waiting());
        m_nEnd -= std::exchange(m_nBegin, 0);
    }
    return std::span(m_vBuffer).subspan(m_nEnd);
}

void CRequestFramer::added(size_t nBytes, bool bAll)
{
    m_nEnd += nBytes;
    m_bAll = bAll;
}

bool CRequestFramer::next(structMICMD& cmd)
{
    while (waiting() >= RECORD)
    {
        size_t nAhead = 0;
        const ELook eBest = findBest(nAhead);
        if (eBest != ELook::Expected && !m_bAll && waiting() < 2 * RECORD - 1)
            return false; // a better one may yet turn out to begin within these bytes
        m_bInStep = eBest >= ELook::Likely;
        if (eBest != ELook::Rubbish)
        {
            drop(nAhead);
            take(cmd);
            return true;
        }
        drop(RECORD);
    }
    if (m_bAll)
    {
        drop(waiting());
        m_bInStep = true;
    }
    return false;
}

size_t CRequestFramer::waiting() const
{
    return m_nEnd - m_nBegin;
}

size_t CRequestFramer::takeRubbish()
{
    return std::exchange(m_nRubbish, 0);
}

// There must be a whole record at the position.
CRequestFramer::ELook CRequestFramer::look(size_t nPosition) const
{
    const unsigned char* pRecord = m_vBuffer.data() + nPosition;
    if (wordAt<int32_t>(pRecord) == MICMD_CONNECT)
        return namesPipes(pRecord) ? ELook::Expected : ELook::Possible;
    const bool bCommand = isCommandAt(pRecord);
    const auto nLatest = m_latest(wordAt<int32_t>(pRecord + offsetof(structMICMD, nConnectID)));
    if (!nLatest)
        return bCommand ? ELook::Possible : ELook::Rubbish;
    const auto nSequenceNo = wordAt<uint32_t>(pRecord + offsetof(structMICMD, nSequenceNo));
    if (nSequenceNo == *nLatest + 1)
        return bCommand ? ELook::Expected : ELook::Possible;
    // Counted from the latest, for numbers begin again after the largest.
    return bCommand && nSequenceNo - *nLatest - 1 < LIKELY_NUMBERS ? ELook::Likely : ELook::Rubbish;
}

// The look of the record here, unless an expected one begins within it: that one then, and how far ahead it
// is.
CRequestFramer::ELook CRequestFramer::findBest(size_t& nAhead) const
{
    nAhead = 0;
    const ELook eHere = look(m_nBegin);
    const size_t nLast = std::min(RECORD - 1, waiting() - RECORD);
    for (size_t n = 1; n <= nLast && eHere != ELook::Expected; ++n)
    {
        if (isCommandAt(m_vBuffer.data() + m_nBegin + n) && look(m_nBegin + n) == ELook::Expected)
        {
            nAhead = n;
            return ELook::Expected;
        }
    }
    return eHere == ELook::Likely && !m_bInStep ? ELook::Rubbish : eHere;
}

void CRequestFramer::take(structMICMD& cmd)
{
    std::memcpy(&cmd, m_vBuffer.data() + m_nBegin, RECORD);
    m_nBegin += RECORD;
}

void CRequestFramer::drop(size_t nBytes)
{
    m_nBegin += nBytes;
    m_nRubbish += nBytes;
}
