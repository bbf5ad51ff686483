// Fuzzes the driver with whatever may be written into its request pipe: requests of several clients among
// rubbish, with time passing and clients that are slow, full or gone in between.
#include "ClientPipes.h"
#include "FileChannel.h"
#include "RequestFramer.h"
#include "RequestHandler.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <span>
#include <unistd.h>
#include <vector>

namespace
{
void require(bool bHolds)
{
    if (!bHolds)
        std::abort();
}

// Ids are given out once in the life of a driver.
struct CLargestIDs
{
    void check(int32_t nID, int32_t& nLargest) const
    {
        require(nID > nLargest);
        nLargest = nID;
    }
    void take(const structMIRSP& rsp)
    {
        switch (rsp.s_mirsp)
        {
        case MIRSP_CONNECT: check(rsp.s_nConnectID, m_nConnect); break;
        case MIRSP_OPENFILE: check(rsp.s_nFileID, m_nFile); break;
        case MIRSP_OPENSTREAM: check(rsp.s_nStreamID, m_nStream); break;
        default: break;
        }
    }

    int32_t m_nConnect = 0;
    int32_t m_nFile = 0;
    int32_t m_nStream = 0;
};

// A client's side of the pipes. Each request is answered once, and each play and recording that was
// accepted ends once, after its answer.
class CMemoryPort : public CClientPort
{
public:
    CMemoryPort(pid_t nProcessID, CLargestIDs& ids) : m_nProcessID(nProcessID), m_ids(ids) {}

    ESend sendResponse(const structMIRSP& rsp) override
    {
        CRequest& request = find(rsp.nRespSequenceNo);
        require(!request.m_bAnswered);
        request.m_bAnswered = true;
        request.m_bRefused = rsp.s_mirsp == MIRSP_STATUS && rsp.s_nResult == MISTATUS_FAILED;
        m_ids.take(rsp);
        return m_bGone ? ESend::Gone : m_bFull ? ESend::Full : ESend::Sent;
    }
    ESend sendEvent(const structMIEVT& evt) override
    {
        if (m_bGone || m_bFull)
            return m_bGone ? ESend::Gone : ESend::Full;
        CRequest& request = find(evt.nSequenceID);
        require(evt.s_mievt == MIEVT_DONE && request.m_micmd >= MICMD_PLAYCLIP && request.m_micmd <= MICMD_RECORDFILE);
        require(request.m_bAnswered && !request.m_bRefused && !request.m_bEnded);
        request.m_bEnded = true;
        return ESend::Sent;
    }
    bool watch(std::function<void()> broken, std::function<void()> writable) override
    {
        m_broken = std::move(broken);
        m_writable = std::move(writable);
        return true;
    }
    void watchForRoom(bool bOn) override { m_bWatchesRoom = bOn; }
    pid_t processId() const override { return m_nProcessID; }
    bool isGone() const override { return m_bGone; }

    void expect(const structMICMD& cmd)
    {
        require(m_mapRequestByNumber.emplace(cmd.nSequenceNo, CRequest{cmd.s_micmd}).second);
    }
    void checkAllAnswered() const
    {
        for (const auto& [nSequenceNo, request] : m_mapRequestByNumber)
            require(request.m_bAnswered);
    }

    bool m_bFull = false;
    bool m_bGone = false;
    bool m_bWatchesRoom = false;
    std::function<void()> m_broken;
    std::function<void()> m_writable;

private:
    struct CRequest
    {
        MICMD m_micmd;
        bool m_bAnswered = false;
        bool m_bRefused = false;
        bool m_bEnded = false;
    };

    CRequest& find(uint32_t nSequenceNo)
    {
        const auto it = m_mapRequestByNumber.find(nSequenceNo);
        require(it != m_mapRequestByNumber.end());
        return it->second;
    }

    const pid_t m_nProcessID;
    CLargestIDs& m_ids;
    std::map<uint32_t, CRequest> m_mapRequestByNumber;
};

class CMemoryOpener : public CClientPortOpener
{
public:
    std::unique_ptr<CClientPort> open(const structMICMD::ConnectBody& connect, std::string& strError) override
    {
        CClientPipeNames names;
        if (!parseClientPipeNames(connect, names, strError))
            return nullptr;
        auto pPort = std::make_unique<CMemoryPort>(names.m_nProcessID, m_ids);
        pPort->expect(*m_pConnect);
        return pPort;
    }

    const structMICMD* m_pConnect = nullptr; // the request that is being handled

private:
    CLargestIDs m_ids;
};

class CManualClock : public CClock
{
public:
    TimePoint now() const override { return m_now; }

    TimePoint m_now = TimePoint(std::chrono::hours(1));
};

// Where the driver reads and writes: a fresh folder of this process, which is the working directory.
const std::string& folder()
{
    static const std::string strFolder = [] {
        char szTemplate[] = "/tmp/driver-fuzz-XXXXXX";
        require(::mkdtemp(szTemplate) != nullptr && ::chdir(szTemplate) == 0);
        std::ofstream("clip.ul") << std::string(1000, 'x');
        std::ofstream("call.in.wav") << "no audio";
        spdlog::set_default_logger(
            std::make_shared<spdlog::logger>("none", std::make_shared<spdlog::sinks::null_sink_st>()));
        return std::string(szTemplate);
    }();
    return strFolder;
}

class CHarness
{
public:
    // Begins with a client that has a file and a stream open.
    CHarness()
    {
        connect(1, "1");
        structMICMD cmd = {};
        cmd.s_micmd = MICMD_OPENFILE;
        cmd.nConnectID = 1;
        cmd.nSequenceNo = 2;
        std::strcpy(cmd.openFile.szFileName, "clip.ul");
        append(cmd);
        cmd.s_micmd = MICMD_OPENSTREAM;
        cmd.nSequenceNo = 3;
        std::strcpy(cmd.openStream.szCallID, "call");
        cmd.openStream.nLegID = 9;
        append(cmd);
        TakeAll();
        const CClient* pClient = m_registry.find(1);
        require(pClient != nullptr && pClient->findFile(1) && pClient->findStream(1));
    }
    ~CHarness()
    {
        m_registry.dropAll("the end");
        m_registry.sweep();
    }

    void step(FuzzedDataProvider& input)
    {
        switch (input.ConsumeIntegralInRange(0, 9))
        {
        case 0: connect(input.ConsumeIntegral<uint32_t>(), std::to_string(input.ConsumeIntegralInRange(1, 4))); break;
        case 1:
        case 2:
        case 3: Demand(input); break;
        case 4: append(input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 700))); break;
        case 5: append(request(input)); break;
        case 6: TakeAll(); break;
        case 7: tick(input.ConsumeIntegralInRange(1, 30)); break;
        case 8:
            m_clock.m_now += std::chrono::milliseconds(input.ConsumeIntegralInRange(0, 2000));
            m_timers.runDue();
            m_registry.dropDead();
            break;
        default: Trouble(input); break;
        }
        m_registry.flushEvents();
        m_registry.sweep();
        for (const auto& [nConnectID, pClient] : m_registry.clients())
            portOf(*pClient).checkAllAnswered();
    }

private:
    static CMemoryPort& portOf(CClient& client) { return static_cast<CMemoryPort&>(client.port()); }

    CClient* AnyClient(FuzzedDataProvider& input)
    {
        const auto& map = m_registry.clients();
        if (map.empty())
            return nullptr;
        return std::next(map.begin(), input.ConsumeIntegralInRange<std::ptrdiff_t>(0, std::ssize(map) - 1))
            ->second.get();
    }

    // An id that exists, as a rule.
    template <class TMap> static int AnyID(FuzzedDataProvider& input, const TMap& map)
    {
        const int nWhich = input.ConsumeIntegralInRange(0, 7);
        return nWhich < std::ssize(map) ? std::next(map.begin(), nWhich)->first : nWhich - 2;
    }

    void connect(uint32_t nSequenceNo, const std::string& strProcess)
    {
        structMICMD cmd = {};
        cmd.s_micmd = MICMD_CONNECT;
        cmd.nSequenceNo = nSequenceNo;
        std::strcpy(cmd.connect.szRspPipe, (MI_RESPONSE_PIPE_PREFIX + strProcess).c_str());
        std::strcpy(cmd.connect.szEvtPipe, (MI_EVENT_PIPE_PREFIX + strProcess).c_str());
        append(cmd);
        TakeAll();
    }

    // A request as clients make them: ids and names that may exist, numbers that may be next.
    structMICMD request(FuzzedDataProvider& input, int nLeastCode = -1, int nLargestCode = 18)
    {
        structMICMD cmd = {};
        const CClient* pClient = AnyClient(input);
        cmd.s_micmd = static_cast<MICMD>(input.ConsumeIntegralInRange(nLeastCode, nLargestCode));
        cmd.nConnectID = pClient != nullptr ? pClient->connectId() : input.ConsumeIntegralInRange(-1, 20);
        cmd.nSequenceNo = (pClient != nullptr ? pClient->m_nLatestSequenceNo : 0) + input.ConsumeIntegralInRange(0, 70);
        if (pClient != nullptr)
        {
            cmd.playClip = {AnyID(input, pClient->m_mapStreamByID), AnyID(input, pClient->m_mapFileByID),
                            input.ConsumeIntegralInRange(0U, 1010U), input.ConsumeIntegralInRange(0U, 1010U), 0};
        }
        const char* const NAMES[] = {"clip.ul", "msg.wav", "msg.ul", "none.wav", ""};
        const char* pName = NAMES[input.ConsumeIntegralInRange(0, 4)];
        switch (cmd.s_micmd)
        {
        case MICMD_OPENFILE: std::strcpy(cmd.openFile.szFileName, pName); break;
        case MICMD_OPENSTREAM:
            std::strcpy(cmd.openStream.szCallID, input.ConsumeBool() ? "call" : "silent");
            cmd.openStream.nLegID = input.ConsumeIntegralInRange(0U, 3U);
            break;
        case MICMD_PLAYFILE:
        case MICMD_RECORDFILE:
            std::strcpy(cmd.playFile.szFileName, pName);
            cmd.playFile.nStartPos = input.ConsumeIntegralInRange(0U, 1010U);
            break;
        default: break;
        }
        return cmd;
    }

    // The next request of a live client comes through, whatever lies around it that cannot be a request.
    void Demand(FuzzedDataProvider& input)
    {
        TakeAll();
        CClient* pClient = AnyClient(input);
        if (pClient == nullptr)
            return;
        structMICMD cmd = request(input, MICMD_DISCONNECT, MICMD_RECORDGETSTATUS);
        cmd.nConnectID = pClient->connectId();
        cmd.nSequenceNo = pClient->m_nLatestSequenceNo + 1;
        append(std::vector<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 700), 0xA5));
        append(cmd);
        append(std::vector<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 700), 0xA5));
        const size_t nHandled = m_nHandled;
        TakeAll();
        require(m_nHandled == nHandled + 1);
    }

    void append(const structMICMD& cmd)
    {
        const auto* pBytes = reinterpret_cast<const uint8_t*>(&cmd);
        append(std::vector<uint8_t>(pBytes, pBytes + sizeof(cmd)));
    }
    void append(const std::vector<uint8_t>& vBytes) { m_vPipe.insert(m_vPipe.end(), vBytes.begin(), vBytes.end()); }

    // Empties the pipe through the framer. No byte is lost or seen twice.
    void TakeAll()
    {
        size_t nRead = 0;
        size_t nGiven = 0;
        size_t nRubbish = 0;
        do
        {
            const std::span<unsigned char> room = m_framer.room();
            require(room.size() >= sizeof(structMICMD));
            const size_t nBytes = std::min(room.size(), m_vPipe.size() - nRead);
            std::copy_n(m_vPipe.begin() + static_cast<std::ptrdiff_t>(nRead), nBytes, room.begin());
            nRead += nBytes;
            m_framer.added(nBytes, nRead == m_vPipe.size());
            structMICMD cmd;
            while (m_framer.next(cmd))
            {
                nGiven += sizeof(cmd);
                handle(cmd);
            }
            nRubbish += m_framer.takeRubbish();
            require(nGiven + nRubbish + m_framer.waiting() == nRead);
        } while (nRead < m_vPipe.size());
        require(m_framer.waiting() == 0);
        m_vPipe.clear();
    }

    void handle(structMICMD cmd)
    {
        if (cmd.s_micmd != MICMD_CONNECT)
        {
            // Nothing is read or written outside of the folder.
            std::replace(std::begin(cmd.abBody), std::end(cmd.abBody), static_cast<unsigned char>('/'),
                         static_cast<unsigned char>('_'));
        }
        CClient* pClient = m_registry.find(cmd.nConnectID);
        if (pClient != nullptr && cmd.s_micmd != MICMD_CONNECT)
            portOf(*pClient).expect(cmd);
        ++m_nHandled;
        m_opener.m_pConnect = &cmd;
        m_handler.handle(cmd);
        m_registry.flushEvents();
        m_registry.sweep();
    }

    void tick(int nTicks)
    {
        for (int nTick = 0; nTick < nTicks; ++nTick)
        {
            m_mediaClock.tickRealTime();
            m_mediaClock.tickFast();
            m_registry.flushEvents();
            m_registry.sweep();
        }
    }

    // A client that does not read, reads again, or goes.
    void Trouble(FuzzedDataProvider& input)
    {
        CClient* pClient = AnyClient(input);
        if (pClient == nullptr)
            return;
        CMemoryPort& port = portOf(*pClient);
        switch (input.ConsumeIntegralInRange(0, 3))
        {
        case 0: port.m_bFull = true; break;
        case 1:
            port.m_bFull = false;
            if (port.m_bWatchesRoom)
            {
                const auto writable = port.m_writable;
                writable();
            }
            break;
        case 2: port.m_bGone = true; break;
        default:
        {
            const auto broken = port.m_broken;
            broken();
            break;
        }
        }
    }

    CInlineExecutor m_inline;
    CManualClock m_clock;
    CTimerQueue m_timers{m_clock};
    CStatistics m_statistics;
    CFaultRules m_faults;
    CClipStore m_clipStore{m_inline};
    CFileChannelFactory m_channels{m_clipStore, m_inline, {folder(), true, false}};
    CMemoryOpener m_opener;
    CMediaClock m_mediaClock;
    CClientRegistry m_registry{m_statistics};
    COutbox m_outbox{m_registry, m_faults, m_timers, m_statistics};
    CRequestHandler m_handler{
        {m_registry, m_outbox, m_clipStore, m_channels, m_opener, m_mediaClock, m_inline, m_faults, m_statistics},
        {[](auto) {}, [] {}}};
    CRequestFramer m_framer{[this](int nConnectID) { return m_registry.latestSequenceNo(nConnectID); }};
    std::vector<uint8_t> m_vPipe;
    size_t m_nHandled = 0;
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    FuzzedDataProvider input(pData, nSize);
    CHarness harness;
    for (int n = 0; n < 200 && input.remaining_bytes() > 0; ++n)
        harness.step(input);
    return 0;
}
