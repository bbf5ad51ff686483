#include "HostileDriver.h"

#include <cstring>

namespace
{
const size_t MAX_OWED = 4;
}

std::vector<uint8_t> CHostileDriver::answer(const structMICMD& request, int nTry, bool bPipeEmpty)
{
    if (nTry == 0)
        return counted(begin(request), sizeof(structMIRSP));
    std::vector<uint8_t> vBytes;
    if (bPipeEmpty && (m_bHonest || !m_choices.oneIn(16)))
        append(vBytes, m_bHonest || !m_choices.oneIn(3) ? good(request) : wrong(request.nSequenceNo));
    return counted(std::move(vBytes), sizeof(structMIRSP));
}

CHostileDriver::Mood CHostileDriver::mood()
{
    static const Mood aMoods[] = {
        Mood::Good,  Mood::Good,    Mood::Good,    Mood::Good,    Mood::OtherCode, Mood::Doubled,
        Mood::Late,  Mood::Late,    Mood::Swapped, Mood::Foreign, Mood::Owed,      Mood::Good,
        Mood::Short, Mood::Doubled, Mood::Long,    Mood::Rubbish, Mood::Silent,    Mood::Good,
    };
    if (m_bHonest)
        return Mood::Good;
    const Mood mood = m_choices.pick(aMoods);
    // What costs the connection, or a whole time-out, is rarer than what does not.
    return mood >= Mood::Owed && m_choices.below(4) != 0 ? Mood::Good : mood;
}

std::vector<uint8_t> CHostileDriver::begin(const structMICMD& request)
{
    std::vector<uint8_t> vBytes;
    const Mood eMood = mood();
    switch (eMood)
    {
    case Mood::Good:
    case Mood::Short:
    case Mood::Long: append(vBytes, good(request)); break;
    case Mood::OtherCode:
    {
        structMIRSP rsp = good(request);
        rsp.s_mirsp = static_cast<MIRSP>(m_choices.oneIn(4) ? m_choices.word() : m_choices.below(11) - 1);
        append(vBytes, rsp);
        break;
    }
    case Mood::Doubled:
    {
        const structMIRSP rsp = good(request);
        append(vBytes, rsp);
        append(vBytes, m_choices.oneIn(2) ? rsp : good(request));
        break;
    }
    case Mood::Late:
        for (uint32_t n = m_choices.below(6); n > 0; --n)
            append(vBytes, wrong(request.nSequenceNo));
        append(vBytes, good(request));
        break;
    case Mood::Swapped:
    {
        structMIRSP rspNext = good(request);
        ++rspNext.nRespSequenceNo;
        append(vBytes, rspNext);
        append(vBytes, good(request));
        break;
    }
    case Mood::Foreign:
    {
        structMIRSP rsp = good(request);
        rsp.nRespSequenceNo = m_choices.word();
        append(vBytes, rsp);
        append(vBytes, good(request));
        break;
    }
    case Mood::Owed:
        if (m_queOwed.size() < MAX_OWED)
            m_queOwed.push_back(good(request));
        break;
    case Mood::Rubbish: return m_choices.bytes(1 + m_choices.below(200));
    case Mood::Silent: break;
    }
    if (eMood == Mood::Short)
        vBytes.resize(1 + m_choices.below(sizeof(structMIRSP) - 1));
    if (eMood == Mood::Long)
        vBytes.resize(vBytes.size() + 1 + m_choices.below(2 * sizeof(structMIRSP)), 1);
    return vBytes;
}

// Each answer has a result word and a tail of its own, so that it is known again.
structMIRSP CHostileDriver::good(const structMICMD& request)
{
    structMIRSP rsp = {};
    const CCommandInfo* const pInfo = commandInfo(request.s_micmd);
    rsp.s_mirsp = pInfo ? pInfo->m_mirsp : MIRSP_STATUS;
    rsp.nRespSequenceNo = request.nSequenceNo;
    rsp.s_nResult = static_cast<int32_t>(2 + m_nToken);
    ++m_nToken;
    memcpy(rsp.abReserved, &m_nToken, sizeof(m_nToken));
    if (request.s_micmd == MICMD_OPENSTREAM)
        rsp.s_nResult = m_nNextStreamID ? m_nNextStreamID++ : streamID();
    else if (rsp.s_mirsp == MIRSP_STATUS && !m_bHonest && m_choices.oneIn(12))
        rsp.s_nResult = MISTATUS_FAILED;
    return rsp;
}

// Some come again while their stream is open, and some are none.
int32_t CHostileDriver::streamID()
{
    const int32_t nStreamID = static_cast<int32_t>(1 + m_choices.below(5));
    return !m_bHonest && m_choices.oneIn(8) ? nStreamID - 4 : nStreamID;
}

structMIRSP CHostileDriver::wrong(uint32_t nSequenceNo)
{
    static const uint32_t anOff[] = {0xFFFFFFFFu, 1, 0xFFFFFFFEu, 0x80000000u, 0x10000, 2};
    structMIRSP rsp = {};
    rsp.s_mirsp = static_cast<MIRSP>(m_choices.below(10));
    rsp.nRespSequenceNo = nSequenceNo + m_choices.pick(anOff);
    rsp.s_nResult = static_cast<int32_t>(m_choices.below(3));
    return rsp;
}

std::vector<uint8_t> CHostileDriver::lateResponses(uint32_t nNextSequenceNo)
{
    std::vector<uint8_t> vBytes;
    if (!m_queOwed.empty())
    {
        append(vBytes, m_queOwed.front());
        m_queOwed.pop_front();
    }
    switch (m_choices.below(8))
    {
    case 0: append(vBytes, wrong(nNextSequenceNo)); break;
    case 1: // an answer before its question
    {
        structMICMD request = {};
        request.nSequenceNo = nNextSequenceNo + m_choices.below(2);
        append(vBytes, good(request));
        break;
    }
    case 2:
        if (m_choices.oneIn(4))
            vBytes = m_choices.bytes(1 + m_choices.below(100));
        break;
    default: break;
    }
    return counted(std::move(vBytes), sizeof(structMIRSP));
}

std::vector<uint8_t> CHostileDriver::events(const std::vector<CRunning>& vRunning, uint32_t nNextSequenceNo)
{
    if (m_choices.oneIn(24))
        return counted(m_choices.bytes(1 + m_choices.below(3 * sizeof(structMIEVT))), sizeof(structMIEVT));
    std::vector<uint8_t> vBytes;
    for (uint32_t n = m_choices.below(4); n < 4; ++n)
    {
        const structMIEVT evt = m_choices.oneIn(6) ? m_evtLast : event(vRunning, nNextSequenceNo);
        m_evtLast = evt;
        const uint8_t* const pBytes = reinterpret_cast<const uint8_t*>(&evt);
        vBytes.insert(vBytes.end(), pBytes, pBytes + sizeof(evt));
    }
    if (m_choices.oneIn(24))
        vBytes.resize(vBytes.size() - 1 - m_choices.below(sizeof(structMIEVT) - 1));
    return counted(std::move(vBytes), sizeof(structMIEVT));
}

structMIEVT CHostileDriver::event(const std::vector<CRunning>& vRunning, uint32_t nNextSequenceNo)
{
    static const int32_t anStatus[] = {0, 0, 0, 0, 0, 0, 3, 5, 16, 42, 44, 45, 46, 41, -1, 0x7FFFFFFF};
    static const int32_t anStreams[] = {0, 1, 2, 3, 4, 5, -1, 1000000};
    structMIEVT evt = {MIEVT_DONE, m_choices.pick(anStreams), nNextSequenceNo - m_choices.below(8),
                       m_choices.pick(anStatus)};
    if (!vRunning.empty() && !m_choices.oneIn(3))
    {
        const CRunning& running = vRunning[m_choices.below(static_cast<uint32_t>(vRunning.size()))];
        evt.nStreamID = running.nStreamID;
        evt.nSequenceID = running.nSequenceNo - (m_choices.oneIn(12) ? 1u : 0u);
    }
    if (m_choices.oneIn(16))
        evt.s_mievt = static_cast<MIEVT>(m_choices.word());
    return evt;
}

void CHostileDriver::append(std::vector<uint8_t>& vBytes, const structMIRSP& rsp)
{
    const uint8_t* const pBytes = reinterpret_cast<const uint8_t*>(&rsp);
    vBytes.insert(vBytes.end(), pBytes, pBytes + sizeof(rsp));
}

std::vector<uint8_t> CHostileDriver::counted(std::vector<uint8_t> vBytes, size_t nRecord)
{
    m_ullRecords += (vBytes.size() + nRecord - 1) / nRecord;
    return vBytes;
}
