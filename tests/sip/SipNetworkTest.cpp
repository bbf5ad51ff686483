// The daemon on the network: who gets answers, what is written down, what a restart and a registrar see.
#include "SipFixture.h"

#include "Places.h"
#include "WaitUntil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

namespace
{
// A datagram socket of an address of this machine.
class CPeer
{
public:
    CPeer(const char* pAddress, unsigned uTarget) : m_nSocket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in own = {};
        own.sin_family = AF_INET;
        ::inet_pton(AF_INET, pAddress, &own.sin_addr);
        EXPECT_EQ(::bind(m_nSocket, reinterpret_cast<sockaddr*>(&own), sizeof(own)), 0);
        sockaddr_in target = {};
        target.sin_family = AF_INET;
        target.sin_port = htons(static_cast<uint16_t>(uTarget));
        target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(m_nSocket, reinterpret_cast<sockaddr*>(&target), sizeof(target)), 0);
    }
    ~CPeer() { ::close(m_nSocket); }
    CPeer(const CPeer&) = delete;
    CPeer& operator=(const CPeer&) = delete;

    void send(const std::string& strText) const { ::send(m_nSocket, strText.data(), strText.size(), 0); }
    // Empty when nothing comes within the time.
    std::string receive(int nLimitMs) const
    {
        pollfd ready = {m_nSocket, POLLIN, 0};
        char szText[65536];
        const ssize_t nSize = ::poll(&ready, 1, nLimitMs) > 0 ? ::recv(m_nSocket, szText, sizeof(szText), 0) : 0;
        return nSize > 0 ? std::string(szText, static_cast<size_t>(nSize)) : "";
    }

private:
    int m_nSocket;
};

std::string request(const std::string& strMethod, const std::string& strBranch, const std::string& strMore = "")
{
    return strMethod + " sip:100@127.0.0.1 SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:9;rport;branch=z9hG4bK" + strBranch +
           "\r\nFrom: <sip:a@127.0.0.1>;tag=" + strBranch + "\r\nTo: <sip:100@127.0.0.1>\r\nCall-ID: " + strBranch +
           "\r\nCSeq: 1 " + strMethod + "\r\nMax-Forwards: 70\r\n" + strMore + "Content-Length: 0\r\n\r\n";
}
} // namespace

using SipNetwork = CSipFixture;

TEST_F(SipNetwork, SourceThatIsNotAllowedGetsNothingBack)
{
    startAll({"--allow", "127.0.0.1"});
    const CPeer stranger("127.0.0.2", m_uPort);
    const CPeer friendly("127.0.0.1", m_uPort);
    stranger.send(request("OPTIONS", "s1"));
    stranger.send(request("INVITE", "s2", "Contact: <sip:a@127.0.0.2>\r\n"));
    stranger.send("no SIP at all\r\n\r\n");
    stranger.send("OPTIONS sip:100@127.0.0.1 SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:9;branch=z9hG4bKx\r\n\r\n");
    friendly.send(request("OPTIONS", "f1"));
    EXPECT_THAT(friendly.receive(30000), testing::StartsWith("SIP/2.0 200"));
    EXPECT_EQ(stranger.receive(200), "");
    EXPECT_FALSE(m_application.has("offered"));
}

TEST_F(SipNetwork, ConnectionOfASourceThatIsNotAllowedIsNotMade)
{
    startAll({"--allow", "127.0.0.1"});
    const int nSocket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in own = {};
    own.sin_family = AF_INET;
    ::inet_pton(AF_INET, "127.0.0.2", &own.sin_addr);
    ASSERT_EQ(::bind(nSocket, reinterpret_cast<sockaddr*>(&own), sizeof(own)), 0);
    sockaddr_in target = {};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<uint16_t>(m_uPort));
    target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(nSocket, reinterpret_cast<sockaddr*>(&target), sizeof(target)), -1);
    pollfd ready = {nSocket, POLLOUT, 0};
    EXPECT_EQ(::poll(&ready, 1, 300), 0);
    ::close(nSocket);
}

TEST_F(SipNetwork, BrokenMessagesAreAnsweredOrDroppedAndDoNoHarm)
{
    startAll();
    const CPeer peer("127.0.0.1", m_uPort);
    peer.send(request("OPTIONS", "b0").substr(0, 60));
    peer.send(std::string(60000, 'x'));
    peer.send(std::string(200, '\0'));
    peer.send("\r\n\r\n");
    peer.send(request("INVITE", "b1", "Content-Type: application/sdp\r\n")); // no Contact
    EXPECT_THAT(peer.receive(30000), testing::StartsWith("SIP/2.0 4"));
    peer.send(request("DANCE", "b2"));
    EXPECT_THAT(peer.receive(30000), testing::StartsWith("SIP/2.0 405"));
    peer.send(
        request("BYE", "b3")
            .replace(request("BYE", "b3").find("To: <sip:100@127.0.0.1>"), 23, "To: <sip:100@127.0.0.1>;tag=none"));
    EXPECT_THAT(peer.receive(30000), testing::StartsWith("SIP/2.0 481"));
    peer.send(request("CANCEL", "b4"));
    EXPECT_THAT(peer.receive(30000), testing::StartsWith("SIP/2.0 481"));
    peer.send(request("OPTIONS", "b5"));
    EXPECT_THAT(peer.receive(30000), testing::StartsWith("SIP/2.0 200"));
}

TEST_F(SipNetwork, SourceAboveItsRateGetsNothingBack)
{
    std::ofstream("/tmp/policy.toml") << "allow = [\"127.0.0.0/8\"]\n[limits]\nsource_requests_per_second = 0.001\n"
                                         "source_requests_burst = 3\n";
    startAll({"--config", "/tmp/policy.toml"});
    const CPeer greedy("127.0.0.2", m_uPort);
    const CPeer modest("127.0.0.1", m_uPort);
    for (int n = 0; n < 10; ++n)
        greedy.send(request("OPTIONS", "g" + std::to_string(n)));
    modest.send(request("OPTIONS", "m"));
    EXPECT_THAT(modest.receive(30000), testing::StartsWith("SIP/2.0 200"));
    int nAnswers = 0;
    while (!greedy.receive(200).empty())
        ++nAnswers;
    EXPECT_EQ(nAnswers, 3);
}

TEST_F(SipNetwork, PolicyIsReadAnewAtSighup)
{
    std::ofstream("/tmp/policy.toml") << "allow = [\"127.0.0.1\"]\n";
    startAll({"--config", "/tmp/policy.toml"});
    std::ofstream("/tmp/policy.toml", std::ios::trunc) << "allow = [\"127.0.0.1\", \"127.0.0.2\"]\n";
    m_daemon.signal(SIGHUP);
    ASSERT_TRUE(waitUntil([] { return output("/tmp/daemon.out").find("read anew") != std::string::npos; }));
    const CPeer peer("127.0.0.2", m_uPort);
    peer.send(request("OPTIONS", "h"));
    EXPECT_THAT(peer.receive(30000), testing::StartsWith("SIP/2.0 200"));
    std::ofstream("/tmp/policy.toml", std::ios::trunc) << "allow = 1\n";
    m_daemon.signal(SIGHUP);
    ASSERT_TRUE(waitUntil([] { return output("/tmp/daemon.out").find("policy.toml:1: allow") != std::string::npos; }));
    peer.send(request("OPTIONS", "i"));
    EXPECT_THAT(peer.receive(30000), testing::StartsWith("SIP/2.0 200"));
}

TEST_F(SipNetwork, MistakeInThePolicyKeepsTheDaemonFromStarting)
{
    std::ofstream("/tmp/policy.toml") << "\nspeed = 1\n";
    startDaemon({"--config", "/tmp/policy.toml"});
    EXPECT_EQ(m_daemon.wait(), 1);
    EXPECT_THAT(output("/tmp/daemon.out"), testing::HasSubstr("/tmp/policy.toml:2: speed: is unknown"));
}

TEST_F(SipNetwork, MistakeOnTheCommandLineIsExplained)
{
    for (const char* pListen : {"udp", "udp:127.0.0.1", "udp:127.0.0.1:0", "sctp:127.0.0.1:5060", "udp:host:5060",
                                "tls:127.0.0.1:5061", "udp:127.0.0.1:99999"})
    {
        CProgram program;
        ASSERT_TRUE(program.start({SIP_PROGRAM, "--listen", pListen}, "/tmp/mistake.out"));
        EXPECT_EQ(program.wait(), 2) << pListen;
    }
    EXPECT_THAT(output("/tmp/mistake.out"), testing::HasSubstr("--listen"));
}

TEST_F(SipNetwork, TraceIsReadByTshark)
{
    startAll({"--sip-trace", "/tmp/trace.pcap"});
    CProgram phone;
    call(phone, "call_and_hang_up.xml", {"-t", "t1"});
    answerNext();
    EXPECT_FALSE(m_application.wait("ended").is_null());
    expectDone(phone);
    CProgram tshark;
    ASSERT_TRUE(tshark.start({"tshark", "-r", "/tmp/trace.pcap", "-T", "fields", "-e", "ip.src", "-e", "sip.Method",
                              "-e", "sip.Status-Code", "-e", "sdp.media", "-e", "_ws.malformed"},
                             "/tmp/tshark.out"));
    ASSERT_EQ(tshark.wait(), 0);
    const std::string strSeen = output("/tmp/tshark.out");
    EXPECT_THAT(strSeen, testing::HasSubstr("127.0.0.1\tINVITE\t\taudio 30000 RTP/AVP 0 8 101"));
    EXPECT_THAT(strSeen, testing::HasSubstr("127.0.0.1\t\t200\taudio 20002 RTP/AVP 0 8 101"));
    EXPECT_THAT(strSeen, testing::HasSubstr("127.0.0.1\tACK"));
    EXPECT_THAT(strSeen, testing::HasSubstr("127.0.0.1\tBYE"));
    EXPECT_THAT(strSeen, testing::Not(testing::HasSubstr("alformed")));
}

TEST_F(SipNetwork, RestartEndsTheCallsOfTheProcessBefore)
{
    startAll({"--journal", "/tmp/journal"});
    CProgram phone;
    call(phone, "call_until_bye.xml");
    const nlohmann::json offered = answerNext();
    ASSERT_TRUE(waitUntil([] { return output("/tmp/journal").find("sip_call_id") != std::string::npos; }));
    EXPECT_EQ(stopDaemon(SIGKILL), -SIGKILL);
    ASSERT_TRUE(startDaemon({"--journal", "/tmp/journal"}));
    expectDone(phone);
    EXPECT_THAT(output("/tmp/daemon.out"),
                testing::HasSubstr(offered["call"].get<std::string>() + " leg 1: of a former"));
    ASSERT_EQ(stopDaemon(), 0);
    ASSERT_TRUE(startDaemon({"--journal", "/tmp/journal"}));
    EXPECT_THAT(output("/tmp/daemon.out"), testing::Not(testing::HasSubstr("of a former")));
}

TEST_F(SipNetwork, TrunkIsRegisteredWithCredentialsAndTakenBack)
{
    CProgram registrar;
    ASSERT_TRUE(m_media.start());
    listen(registrar, "registrar.xml");
    std::ofstream("/tmp/policy.toml")
        << "[[trunk]]\nname = \"provider\"\nfrom = \"sip:alice@127.0.0.1\"\nregister = true\n"
        << "registrar = \"sip:127.0.0.1:" << m_uPhonePort
        << "\"\nuser = \"alice\"\npassword = \"secret\"\naddresses = [\"127.0.0.1\"]\n";
    ASSERT_TRUE(startDaemon({"--config", "/tmp/policy.toml"}));
    EXPECT_TRUE(waitUntil([] { return output("/tmp/daemon.out").find("provider: registered") != std::string::npos; }));
    EXPECT_EQ(stopDaemon(), 0);
    EXPECT_EQ(registrar.wait(), 0);
    EXPECT_THAT(output("/tmp/phone1.messages"), testing::HasSubstr("Expires: 0"));
}

TEST_F(SipNetwork, TlsIsSpoken)
{
#ifdef ZELMEDIA_ASAN
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // the stack loses 46 kB with each connection
#endif
    CProgram certificate;
    ASSERT_TRUE(certificate.start({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=127.0.0.1",
                                   "-keyout", "/tmp/key.pem", "-out", "/tmp/cafile.pem", "-days", "2"},
                                  "/tmp/openssl.out"));
    ASSERT_EQ(certificate.wait(), 0);
    std::ofstream("/tmp/agent.pem") << output("/tmp/cafile.pem") << output("/tmp/key.pem");
    const std::string strPort = std::to_string(freePort());
    startAll({"--listen", "tls:127.0.0.1:" + strPort, "--certificates", "/tmp"});
    std::string strRequest = request("OPTIONS", "t");
    strRequest.replace(strRequest.find("UDP"), 3, "TLS");
    std::ofstream("/tmp/request") << strRequest;
    CProgram client;
    ASSERT_TRUE(client.start(
        {"sh", "-c", "exec openssl s_client -quiet -ign_eof -connect 127.0.0.1:" + strPort + " < /tmp/request"},
        "/tmp/client.out"));
    EXPECT_TRUE(waitUntil([] { return output("/tmp/client.out").find("SIP/2.0 200") != std::string::npos; }))
        << output("/tmp/client.out");
}

TEST_F(SipNetwork, NumberWithoutRouteIsUnknown)
{
    std::ofstream("/tmp/policy.toml") << "allow = [\"127.0.0.1\"]\n[[route]]\nnumber = \"2*\"\nto = \"menu\"\n";
    startAll({"--config", "/tmp/policy.toml"});
    CProgram phone;
    call(phone, "call_refused_404.xml");
    expectDone(phone);
    EXPECT_FALSE(m_application.has("offered"));
}

TEST_F(SipNetwork, WatcherIsToldOfCallsThatAreOthers)
{
    startAll();
    CTestApplication watcher;
    ASSERT_TRUE(watcher.connect(""));
    EXPECT_TRUE(watcher.request({{"request", "watch"}}).value("ok", false));
    CProgram phone;
    call(phone, "call_and_hang_up.xml");
    const nlohmann::json offered = answerNext();
    EXPECT_EQ(watcher.wait("offered")["call"], offered["call"]);
    EXPECT_EQ(watcher.wait("ended")["reason"], "hangup");
    expectDone(phone);
}
