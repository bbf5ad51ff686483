#include "HostilePeer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace
{
const int NORESPONSE = 16;
const int REFUSED = 34;
const int PIPEREAD = 44;
const int ANSWERS_READ = 5;
} // namespace

CHostilePeer::CHostilePeer(uint64_t ullSeed, uint32_t nRequestsPerTear)
    : m_choices(ullSeed), m_driver(m_choices), m_nRequestsPerTear(nRequestsPerTear)
{
    m_driver.giveEachStreamItsOwnID();
    m_peer.keepNoRequests();
    m_peer.onEveryRequest([this](const structMICMD& request) {
        handle(request);
        return true;
    });
    m_peer.start();
}

void CHostilePeer::handle(const structMICMD& request)
{
    m_driver.setHonest(m_bHonest);
    if (request.s_micmd == MICMD_CONNECT)
        return connect(request);
    std::vector<uint8_t> vBytes;
    CFate fate = {request.s_micmd, PIPEREAD, 0, 0};
    if (!m_bHonest && m_pipeResponse.empty() && m_choices.oneIn(m_nRequestsPerTear))
    {
        vBytes = m_choices.bytes(1 + m_choices.below(sizeof(structMIRSP) - 1));
        ++m_nLosses;
    }
    else
    {
        fate = plan(request, vBytes);
    }
    if (request.s_micmd == MICMD_PLAYFILE)
        fate.nCompletion = m_nNextCompletion++;
    if (request.s_micmd == MICMD_OPENSTREAM && fate.nStatus == 0)
        m_mapCallByStream[fate.nWord] = request.openStream.szCallID;
    keepFate(request, fate);

    // The end of a play may be told before its beginning.
    const bool bEventsFirst = m_choices.oneIn(3);
    if (bEventsFirst)
        writeEvents(request, fate);
    m_peer.respondRaw(vBytes.data(), vBytes.size()); // in one piece: a read finds all of it or nothing
    if (!bEventsFirst)
        writeEvents(request, fate);
    m_ullRecords = m_driver.records() + m_ullEvents;
}

// What is left unread of an earlier connection would make this one fail, for good.
void CHostilePeer::connect(const structMICMD& request)
{
    const int nPipe = open(request.connect.szRspPipe, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    char acRest[4096];
    while (read(nPipe, acRest, sizeof(acRest)) > 0)
    {
    }
    close(nPipe);
    m_pipeResponse.clear();
    m_mapCallByStream.clear();
    m_driver.setHonest(true);
    const std::vector<uint8_t> vBytes = m_driver.answer(request, 0, true);
    m_peer.respondRaw(vBytes.data(), vBytes.size());
    ++m_nConnects;
}

// Nothing that the library would wait for in vain, and no records that break off.
CHostilePeer::CFate CHostilePeer::plan(const structMICMD& request, std::vector<uint8_t>& vBytes)
{
    for (;;)
    {
        CBytePipe pipe = m_pipeResponse;
        vBytes.clear();
        CFate fate = {request.s_micmd, 0, 0, 0};
        bool bWhole = true;
        for (int nTry = 0; nTry < ANSWERS_READ && bWhole; ++nTry)
        {
            std::vector<uint8_t> vMore = m_driver.answer(request, nTry, pipe.empty());
            if (vMore.empty() && pipe.empty())
                vMore = m_driver.answer(request, 0, true);
            pipe.append(vMore);
            vBytes.insert(vBytes.end(), vMore.begin(), vMore.end());
            structMIRSP rsp = {};
            bWhole = pipe.read(rsp) == sizeof(rsp);
            if (rsp.s_mirsp == MIRSP_STATUS)
                fate.nStatus = rsp.s_nResult == MISTATUS_FAILED ? REFUSED : 0;
            fate.nWord = rsp.s_nResult;
            if (rsp.nRespSequenceNo == request.nSequenceNo)
                break;
            fate.nStatus = NORESPONSE;
        }
        if (bWhole && pipe.size() % sizeof(structMIRSP) == 0)
        {
            m_pipeResponse = pipe;
            return fate;
        }
    }
}

// Among events that are nobody's the one of this play, and perhaps once more.
void CHostilePeer::writeEvents(const structMICMD& request, const CFate& fate)
{
    static const int32_t anStatus[] = {0, 3, 5, 16, 46, -1};
    static const uint32_t anOff[] = {0xFFFFFFFFu, 0x80000000u, 0xFFFFFFFEu, 0x10000000u};
    if (request.s_micmd != MICMD_PLAYFILE)
        return;
    const int32_t nStreamID = request.playFile.nStreamID;
    std::vector<structMIEVT> vEvents;
    for (uint32_t n = m_choices.below(4); n > 0; --n)
    {
        vEvents.push_back(
            {MIEVT_DONE, nStreamID, request.nSequenceNo + m_choices.pick(anOff), m_choices.pick(anStatus)});
        vEvents.push_back({static_cast<MIEVT>(2 + m_choices.below(9)), nStreamID, request.nSequenceNo, 0});
        vEvents.push_back({MIEVT_DONE, -1 - static_cast<int32_t>(m_choices.below(9)), request.nSequenceNo, 0});
    }
    vEvents.insert(vEvents.end(), 1 + m_choices.below(2),
                   {MIEVT_DONE, nStreamID, request.nSequenceNo, fate.nCompletion});
    m_peer.eventRaw(vEvents.data(), vEvents.size() * sizeof(structMIEVT));
    m_ullEvents += vEvents.size();
}

void CHostilePeer::keepFate(const structMICMD& request, const CFate& fate)
{
    std::string strCall;
    if (request.s_micmd == MICMD_OPENSTREAM)
        strCall = request.openStream.szCallID;
    else if (request.s_micmd == MICMD_PLAYFILE || request.s_micmd == MICMD_RECORDGETTIME)
        strCall = m_mapCallByStream[request.stream.nStreamID];
    else
        return;
    const std::lock_guard hold(m_mutex);
    EXPECT_TRUE(m_mapFates.emplace(strCall, fate).second) << "two requests of " << strCall << " at once";
    m_changed.notify_all();
}

std::optional<CHostilePeer::CFate> CHostilePeer::waitFate(const std::string& strCall, std::chrono::milliseconds limit)
{
    std::unique_lock hold(m_mutex);
    m_changed.wait_for(hold, limit, [&] { return m_mapFates.contains(strCall); });
    const auto node = m_mapFates.extract(strCall);
    return node ? std::optional(node.mapped()) : std::nullopt;
}
