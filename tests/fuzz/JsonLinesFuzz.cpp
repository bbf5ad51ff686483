// Fuzzes both ends of JSON lines: a server gets whatever peers may write, in any pieces, with answers that are late,
// events for peers that do not read, and ends in between; a client gets whatever a server may write.
#include "JsonLinesClient.h"
#include "JsonLinesServer.h"
#include "JsonText.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdlib>
#include <deque>
#include <memory>
#include <set>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{
const std::string s_strPath = "/tmp/json-lines-fuzz-" + std::to_string(::getpid()) + ".sock";

void require(bool bHolds)
{
    if (!bHolds)
        std::abort();
}

// Each connection ends once, each request is answered once, and never after the end of its connection.
class CHarness : public CJsonLinesHandler
{
public:
    CHarness()
    {
        CJsonLinesServer::CSettings settings;
        settings.m_strPath = s_strPath;
        settings.m_hello = {{"hello", "fuzz"}};
        settings.m_nMaxConnections = 4;
        settings.m_bEvictIdle = true;
        settings.m_nMaxLine = 300;
        settings.m_nMaxWaiting = 2000;
        settings.m_nMaxOutstanding = 5;
        settings.m_nRequestsPerTurn = 3;
        m_pServer = std::make_unique<CJsonLinesServer>(settings, *this);
        std::string strError;
        require(m_pServer->open(strError));
        m_vPeers.emplace_back(connectTo(s_strPath, strError));
    }

    void onConnected(ConnectionID nConnection, const CJsonPeer&) override
    {
        require(m_setConnections.insert(nConnection).second);
    }
    void onDisconnected(ConnectionID nConnection, const std::string&) override
    {
        require(m_setConnections.erase(nConnection) == 1);
        require(!m_pServer->send(nConnection, {{"event", "late"}}));
    }
    void onRequest(ConnectionID nConnection, const CJsonRequest& request) override
    {
        require(m_setConnections.contains(nConnection) && request.m_fields.is_object());
        require(!request.m_fields.contains("id") && !request.m_fields.contains("request"));
        m_vOpen.emplace_back(nConnection, request.m_nID);
        if (m_bAnswersAtOnce)
            answerOldest();
    }

    void step(FuzzedDataProvider& input)
    {
        std::string strError;
        CSocketFd& peer = m_vPeers[input.ConsumeIntegralInRange<size_t>(0, m_vPeers.size() - 1)];
        switch (input.ConsumeIntegralInRange(0, 10))
        {
        case 0: peer = connectTo(s_strPath, strError); break;
        case 1: addPeer(); break;
        case 2: write(peer, input.ConsumeRandomLengthString(400)); break;
        case 3: write(peer, "{\"id\":" + std::to_string(++m_nLastID) + ",\"request\":\"a\"}\n"); break;
        case 4: write(peer, "{\"request\":\"" + input.ConsumeRandomLengthString(20) + "\"}\n"); break;
        case 5: ::shutdown(peer.get(), SHUT_WR); break;
        case 6: read(peer); break;
        case 7: m_bAnswersAtOnce = !m_bAnswersAtOnce; break;
        case 8: answerOldest(); break;
        case 9: interfere(input); break;
        default: turn(); break;
        }
    }

    void finish()
    {
        turn();
        m_vPeers.clear();
        turn();
        while (!m_vOpen.empty())
            answerOldest();
        turn();
        require(m_setConnections.empty() && m_pServer->connections() == 0);
    }

private:
    void addPeer()
    {
        std::string strError;
        if (m_vPeers.size() < 8)
            m_vPeers.push_back(connectTo(s_strPath, strError));
    }
    static void write(const CSocketFd& peer, const std::string& strText)
    {
        ::send(peer.get(), strText.data(), strText.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    static void read(const CSocketFd& peer)
    {
        char bytes[4096];
        while (::recv(peer.get(), bytes, sizeof(bytes), MSG_DONTWAIT) > 0)
        {
        }
    }
    void answerOldest()
    {
        if (!m_vOpen.empty())
        {
            const auto [nConnection, nID] = m_vOpen.front();
            m_vOpen.pop_front();
            m_pServer->answer(nConnection, nID, {{"text", std::string(200, 'x')}});
            require(!nID || !m_pServer->refuse(nConnection, nID, "twice", ""));
        }
    }
    void interfere(FuzzedDataProvider& input)
    {
        const auto nConnection = input.ConsumeIntegralInRange<ConnectionID>(1, 20);
        switch (input.ConsumeIntegralInRange(0, 3))
        {
        case 0: m_pServer->close(nConnection, "closed"); break;
        case 1: m_pServer->drop(nConnection, "dropped"); break;
        default:
            for (int n = 0; n < 300; ++n)
                m_pServer->send(nConnection, {{"event", std::string(100, 'x')}});
        }
    }
    void turn()
    {
        for (int n = 0; n < 10000; ++n)
        {
            pollfd wait = {m_pServer->descriptor(), POLLIN, 0};
            if (::poll(&wait, 1, 0) == 0)
                return;
            m_pServer->onReadable();
        }
        require(false); // it would turn for ever
    }

    std::unique_ptr<CJsonLinesServer> m_pServer;
    std::vector<CSocketFd> m_vPeers;
    std::set<ConnectionID> m_setConnections;
    std::deque<std::pair<ConnectionID, std::optional<uint64_t>>> m_vOpen;
    uint64_t m_nLastID = 0;
    bool m_bAnswersAtOnce = true;
};

void fuzzClient(FuzzedDataProvider& input)
{
    CListeningSocket listening;
    std::string strError;
    require(listening.open(s_strPath, 0600, strError));
    CJsonLinesClient client;
    require(client.connect(s_strPath, strError));
    const CSocketFd fd(::accept(listening.get(), nullptr, nullptr));
    client.request({{"request", "a"}});
    while (input.remaining_bytes() > 0)
    {
        const std::string strPiece = input.ConsumeRandomLengthString(300);
        if (::send(fd.get(), strPiece.data(), strPiece.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0 ||
            !client.onReady([](const nlohmann::json& message) { require(message.is_object()); }, strError))
            break;
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    FuzzedDataProvider input(pData, nSize);
    if (input.ConsumeBool())
    {
        fuzzClient(input);
        return 0;
    }
    CHarness harness;
    for (int n = 0; n < 200 && input.remaining_bytes() > 0; ++n)
        harness.step(input);
    harness.finish();
    return 0;
}
