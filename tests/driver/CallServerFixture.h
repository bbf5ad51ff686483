// A call socket in this process, programs that speak on it, and time that passes as the test says.
#ifndef CALL_SERVER_FIXTURE_H
#define CALL_SERVER_FIXTURE_H

#include "CallServer.h"
#include "JsonLinesClient.h"
#include "RtpTestSupport.h"

#include <gmock/gmock.h>
#include <sys/epoll.h>

#include <map>

// A program on the call socket.
class CCallClient
{
public:
    explicit CCallClient(CCallServer& server, const std::string& strSocket) : m_server(server)
    {
        std::string strError;
        EXPECT_TRUE(m_client.connect(strSocket, strError)) << strError;
        pump();
    }

    // Sends a request and returns its answer.
    nlohmann::json ask(nlohmann::ordered_json request)
    {
        const uint64_t ullID = m_client.request(std::move(request));
        for (int n = 0; n < 10000 && m_mapAnswers.count(ullID) == 0 && m_client.isConnected(); ++n)
            pump();
        return m_mapAnswers[ullID];
    }
    // The code of the refusal, "ok" if there was none.
    std::string codeOf(nlohmann::ordered_json request)
    {
        const nlohmann::json answer = ask(std::move(request));
        return answer.value("ok", false) ? "ok" : answer["error"].value("code", "none");
    }
    void attach(const std::string& strOwner = "test")
    {
        EXPECT_EQ(codeOf({{"request", "attach"}, {"owner", strOwner}}), "ok");
    }

    // The events that have come, the oldest first.
    std::vector<nlohmann::json> takeEvents()
    {
        for (int n = 0; n < 5; ++n)
            pump();
        return std::exchange(m_vEvents, {});
    }
    bool isConnected()
    {
        pump();
        return m_client.isConnected();
    }
    void close()
    {
        m_client.close();
        pump();
    }
    nlohmann::json m_hello;

private:
    void pump()
    {
        m_server.onReadable();
        std::string strError;
        if (m_client.isConnected())
            m_client.onReady(
                [this](const nlohmann::json& message) {
                    if (message.contains("hello"))
                        m_hello = message;
                    else if (message.contains("event"))
                        m_vEvents.push_back(message);
                    else
                        m_mapAnswers[message.value("id", uint64_t{0})] = message;
                },
                strError);
        m_server.onReadable();
    }

    CCallServer& m_server;
    CJsonLinesClient m_client;
    std::map<uint64_t, nlohmann::json> m_mapAnswers;
    std::vector<nlohmann::json> m_vEvents;
};

class CCallServerFixture : public testing::Test
{
protected:
    static constexpr uint16_t FIRST_PORT = 21000;

    // An address of this process, as others test the same ports at the same time.
    static CNetAddress ours(uint16_t nPort = 0)
    {
        const int nProcess = ::getpid();
        const std::string strAddress =
            fmt::format("127.{}.{}.{}:1", 64 + (nProcess >> 16) % 64, (nProcess >> 8) & 255, nProcess & 255);
        return CNetAddress::parse(strAddress).value().withPort(nPort);
    }

    CCallServerFixture()
    {
        std::string strError;
        EXPECT_TRUE(m_server.open(strError)) << strError;
        m_client.emplace(m_server, SOCKET);
    }

    CCallClient& client() { return *m_client; }

    // A session of a call between us and a far end. More fields may be given.
    CNetAddress create(const std::string& strCall, const CFarEnd& far,
                       nlohmann::ordered_json more = nlohmann::ordered_json::object())
    {
        nlohmann::ordered_json request = {{"request", "create"},
                                          {"call", strCall},
                                          {"leg", 1},
                                          {"remote", far.address().text()},
                                          {"receive",
                                           {{{"name", "PCMU"}, {"payload", 0}, {"rate", 8000}},
                                            {{"name", "PCMA"}, {"payload", 8}, {"rate", 8000}},
                                            {{"name", "telephone-event"}, {"payload", 101}, {"rate", 8000}}}}};
        request.update(more);
        const nlohmann::json answer = client().ask(request);
        EXPECT_TRUE(answer.value("ok", false)) << answer.dump();
        return CNetAddress::parse(answer.value("local", "127.0.0.1:1")).value();
    }
    nlohmann::json get(const std::string& strCall)
    {
        return client().ask({{"request", "get"}, {"call", strCall}, {"leg", 1}})["session"];
    }
    std::unique_ptr<CChannel> openChannel(const std::string& strCall, uint32_t nLegID = 1)
    {
        std::unique_ptr<CChannel> pOpened;
        m_strChannelError = "no session";
        m_server.openChannel(strCall, nLegID, [&](std::unique_ptr<CChannel> pChannel, const std::string& strError) {
            pOpened = std::move(pChannel);
            m_strChannelError = strError;
        });
        return pOpened;
    }
    void ticks(int nTicks)
    {
        for (int n = 0; n < nTicks; ++n)
            runTick(m_ports);
    }
    // One packet of 20 ms from a far end, then a tick.
    void say(const CFarEnd& far, const CNetAddress& local, uint8_t nSample = 1, uint32_t nSource = 1)
    {
        const uint16_t nSequence = m_nSequence++;
        far.send(rtpBytes({false, 0, nSequence, nSequence * 160U, nSource}, CBytes(160, nSample)), local);
        ticks(1);
    }

    static constexpr const char* SOCKET = "/tmp/calls.sock";
    CLogCapture m_log;
    CManualClock m_clock;
    CRtpPorts m_ports;
    std::vector<std::string> m_vHangUps;
    CManualExecutor m_disk;
    CCallServer m_server{{m_ports, nullptr, m_clock, m_disk,
                          [this](const std::string& strCall, std::optional<uint32_t> nLeg) {
                              m_vHangUps.push_back(strCall + (nLeg ? "/" + std::to_string(*nLeg) : ""));
                              return size_t{1};
                          }},
                         {SOCKET, ours(), FIRST_PORT, FIRST_PORT + 9}};
    std::optional<CCallClient> m_client;
    std::string m_strChannelError;
    uint16_t m_nSequence = 0;
};

#endif
