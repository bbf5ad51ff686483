// What tests of the signalling daemon stand on.
#include "SipFixture.h"

#include "Files.h"
#include "Places.h"
#include "WaitUntil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

using Json = nlohmann::ordered_json;

namespace
{
constexpr char s_szDriverSocket[] = "/tmp/zelmedia-calls.sock";
constexpr char s_szSipSocket[] = "/tmp/zelmedia-sip.sock";
} // namespace

unsigned freePort()
{
    const int nSocket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int nStream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nSize = sizeof(address);
    ::bind(nSocket, reinterpret_cast<sockaddr*>(&address), nSize);
    ::getsockname(nSocket, reinterpret_cast<sockaddr*>(&address), &nSize);
    const bool bBoth = ::bind(nStream, reinterpret_cast<sockaddr*>(&address), nSize) == 0;
    ::close(nSocket);
    ::close(nStream);
    return bBoth ? ntohs(address.sin_port) : freePort();
}

CScriptedMedia::CScriptedMedia() = default;

CScriptedMedia::~CScriptedMedia()
{
    stop();
}

bool CScriptedMedia::start()
{
    CJsonLinesServer::CSettings settings;
    settings.m_strPath = s_szDriverSocket;
    settings.m_hello = {{"hello", "zelmedia-driver"},
                        {"version", "1.0.0"},
                        {"protocol", 1},
                        {"abilities", {"pcmu", "pcma", "dtmf", "srtp"}}};
    m_pServer = std::make_unique<CJsonLinesServer>(settings, *this);
    std::string strError;
    m_bStop = false;
    if (!m_pServer->open(strError))
        return false;
    m_thread = std::thread([this] { run(); });
    return true;
}

void CScriptedMedia::stop()
{
    m_bStop = true;
    if (m_thread.joinable())
        m_thread.join();
    m_pServer.reset();
    const std::lock_guard<std::mutex> hold(m_mutex);
    m_vSessions.clear();
}

void CScriptedMedia::run()
{
    while (!m_bStop)
    {
        pollfd ready = {m_pServer->descriptor(), POLLIN, 0};
        if (::poll(&ready, 1, 5) > 0)
            m_pServer->onReadable();
        const std::lock_guard<std::mutex> hold(m_mutex);
        for (const Json& event : m_vEvents)
            m_pServer->send(m_nConnection, event);
        m_vEvents.clear();
    }
}

void CScriptedMedia::onRequest(ConnectionID nConnection, const CJsonRequest& request)
{
    const std::lock_guard<std::mutex> hold(m_mutex);
    nlohmann::json seen = request.m_fields;
    seen["request"] = request.m_strName;
    m_vRequests.push_back(seen);
    const std::pair<std::string, unsigned> session = {seen.value("call", ""), seen.value("leg", 0U)};
    Json answer = Json::object();
    if (request.m_strName == "attach")
    {
        answer["sessions"] = Json::array();
        for (const auto& [strCall, uLeg] : m_vSessions)
            answer["sessions"].push_back({{"call", strCall}, {"leg", uLeg}, {"last", 0}});
    }
    else if (m_bRefuse && request.m_strName == "create")
    {
        m_pServer->refuse(nConnection, request.m_nID, "full", "no port is left");
        return;
    }
    else if (request.m_strName == "create")
    {
        m_vSessions.push_back(session);
        m_uPort += 2;
        answer["local"] = "127.0.0.1:" + std::to_string(m_uPort);
        answer["rtcp"] = "127.0.0.1:" + std::to_string(m_uPort + 1);
    }
    else if (request.m_strName == "end")
        m_vSessions.remove(session);
    m_pServer->answer(nConnection, request.m_nID, answer);
}

std::vector<nlohmann::json> CScriptedMedia::requests(const std::string& strName)
{
    const std::lock_guard<std::mutex> hold(m_mutex);
    std::vector<nlohmann::json> vFound;
    std::copy_if(m_vRequests.begin(), m_vRequests.end(), std::back_inserter(vFound),
                 [&strName](const nlohmann::json& request) { return request["request"] == strName; });
    return vFound;
}

nlohmann::json CScriptedMedia::waitRequest(const std::string& strName, size_t nth)
{
    return waitUntil([&] { return requests(strName).size() >= nth; }) ? requests(strName)[nth - 1] : nlohmann::json();
}

size_t CScriptedMedia::sessions()
{
    const std::lock_guard<std::mutex> hold(m_mutex);
    return m_vSessions.size();
}

void CScriptedMedia::event(const Json& event)
{
    const std::lock_guard<std::mutex> hold(m_mutex);
    m_vEvents.push_back(event);
}

bool CProgram::start(const std::vector<std::string>& vArguments, const std::string& strOutputFile)
{
    const int nNothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int nOutput = openOutput(strOutputFile);
    const bool bStarted = CChild::start(vArguments, {nNothing, nOutput, nOutput});
    ::close(nNothing);
    ::close(nOutput);
    return bStarted;
}

int CProgram::wait()
{
    return waitExit().value_or(-1000);
}

static int s_nInstances = 0;

bool CTestApplication::connect(const std::string& strRoute)
{
    std::string strError;
    if (!waitUntil([&] { return m_client.connect(s_szSipSocket, strError); }))
        return false;
    return request(
               {{"request", "register"}, {"route", strRoute}, {"instance", "test-" + std::to_string(++s_nInstances)}})
        .value("ok", false);
}

void CTestApplication::take(int nLimitMs)
{
    pollfd ready = {m_client.descriptor(), static_cast<short>(m_client.wantedEvents()), 0};
    if (::poll(&ready, 1, nLimitMs) <= 0)
        return;
    std::string strError;
    m_client.onReady(
        [this](const nlohmann::json& message) {
            if (message.contains("event"))
                m_vEvents.push_back(message);
            else if (message.contains("id"))
                m_vAnswers.push_back(message);
        },
        strError);
}

nlohmann::json CTestApplication::request(Json request)
{
    const uint64_t ullID = m_client.request(std::move(request));
    nlohmann::json answer;
    waitUntil([&] {
        take(20);
        for (auto iAnswer = m_vAnswers.begin(); iAnswer != m_vAnswers.end(); ++iAnswer)
            if ((*iAnswer)["id"] == ullID)
            {
                answer = *iAnswer;
                m_vAnswers.erase(iAnswer);
                return true;
            }
        return !m_client.isConnected();
    });
    return answer;
}

nlohmann::json CTestApplication::wait(const std::string& strEvent)
{
    nlohmann::json found;
    waitUntil([&] {
        for (auto iEvent = m_vEvents.begin(); iEvent != m_vEvents.end(); ++iEvent)
            if ((*iEvent)["event"] == strEvent)
            {
                found = *iEvent;
                m_vEvents.erase(iEvent);
                return true;
            }
        take(20);
        return !m_client.isConnected();
    });
    return found;
}

bool CTestApplication::has(const std::string& strEvent)
{
    take(0);
    return std::any_of(m_vEvents.begin(), m_vEvents.end(),
                       [&strEvent](const nlohmann::json& event) { return event["event"] == strEvent; });
}

bool CSipFixture::startDaemon(const std::vector<std::string>& vMore)
{
    m_uPort = m_uPort == 0 ? freePort() : m_uPort;
    const std::string strPort = std::to_string(m_uPort);
    std::vector<std::string> vArguments = {
        SIP_PROGRAM,   "--listen", "udp:127.0.0.1:" + strPort, "--listen", "tcp:127.0.0.1:" + strPort,
        "--log-level", "debug"};
    vArguments.insert(vArguments.end(), vMore.begin(), vMore.end());
    return m_daemon.start(vArguments, "/tmp/daemon.out") && waitUntil([this] {
               return output("/tmp/daemon.out").find("zelmedia-sip: ready") != std::string::npos ||
                      !m_daemon.isRunning();
           });
}

void CSipFixture::startAll(const std::vector<std::string>& vMore)
{
    ASSERT_TRUE(m_media.start());
    ASSERT_TRUE(startDaemon(vMore));
    ASSERT_FALSE(m_media.waitRequest("attach").is_null()) << output("/tmp/daemon.out");
    ASSERT_TRUE(m_application.connect());
}

int CSipFixture::stopDaemon(int nSignal)
{
    m_daemon.signal(nSignal);
    return m_daemon.wait();
}

void CSipFixture::TearDown()
{
    if (m_daemon.isRunning())
        EXPECT_EQ(stopDaemon(), 0);
    if (HasFailure())
    {
        std::fprintf(stderr, "%s\n", output("/tmp/daemon.out").c_str());
        for (unsigned uPhone = 1; uPhone <= m_uPhones; ++uPhone)
            std::fprintf(stderr, "%s\n", output("/tmp/phone" + std::to_string(uPhone) + ".messages").c_str());
    }
}

void CSipFixture::startPhone(CProgram& phone, const std::string& strScenario, unsigned uPort,
                             std::vector<std::string> vMore)
{
    const std::string strName = "/tmp/phone" + std::to_string(++m_uPhones);
    const std::string strFile = std::string(SIP_SCENARIOS) + "/" + strScenario;
    vMore.insert(vMore.begin(), {"sipp", "-sf", strFile, "-m", "1", "-i", "127.0.0.1", "-p", std::to_string(uPort),
                                 "-nostdin", "-timeout", "50", "-timeout_error", "-recv_timeout", "40000", "-trace_msg",
                                 "-message_file", strName + ".messages"});
    ASSERT_TRUE(phone.start(vMore, strName + ".out"));
}

void CSipFixture::call(CProgram& phone, const std::string& strScenario, const std::vector<std::string>& vMore)
{
    std::vector<std::string> vArguments = {"-s", "100"};
    vArguments.insert(vArguments.end(), vMore.begin(), vMore.end());
    vArguments.push_back("127.0.0.1:" + std::to_string(m_uPort));
    startPhone(phone, strScenario, freePort(), vArguments);
}

void CSipFixture::listen(CProgram& phone, const std::string& strScenario, const std::vector<std::string>& vMore)
{
    m_uPhonePort = freePort();
    startPhone(phone, strScenario, m_uPhonePort, vMore);
    // It is there when nobody else can be.
    ASSERT_TRUE(waitUntil([this] {
        const int nSocket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(m_uPhonePort));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool bFree = ::bind(nSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        ::close(nSocket);
        return !bFree;
    }));
}

Json CSipFixture::of(const char* pRequest, const nlohmann::json& event)
{
    return {{"request", pRequest}, {"call", event.value("call", "")}, {"leg", event.value("leg", 0U)}};
}

nlohmann::json CSipFixture::answerNext()
{
    nlohmann::json offered = m_application.wait("offered");
    EXPECT_FALSE(offered.is_null());
    EXPECT_TRUE(m_application.request(of("answer", offered)).value("ok", false));
    EXPECT_FALSE(m_application.wait("answered").is_null());
    return offered;
}

std::string CSipFixture::phoneUri(const std::string& strUser) const
{
    return "sip:" + strUser + "@127.0.0.1:" + std::to_string(m_uPhonePort);
}

std::string CSipFixture::output(const std::string& strFile)
{
    return contentOf(strFile);
}

void CSipFixture::expectDone(CProgram& phone)
{
    EXPECT_EQ(phone.wait(), 0);
    EXPECT_TRUE(waitUntil([this] { return m_media.sessions() == 0; }));
}
