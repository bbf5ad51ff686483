// The examples that take calls, as programs: the scripted daemon makes their calls, the reference driver their audio.
#include "Child.h"
#include "Places.h"
#include "ReferenceDriver.h"
#include "ScriptedCallDaemon.h"
#include "WaitUntil.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

using testing::HasSubstr;

namespace
{
const std::string SOCKET = "/tmp/sip-example.sock";
const std::string GREETING = std::string(ASSETS) + "/prompts/greeting.wav";
const std::string CALLER = std::string(ASSETS) + "/caller/answer.in.wav";

class CallExamples : public testing::Test
{
protected:
    CallExamples() { std::filesystem::create_directories("/tmp/calls"); }

    bool startDriver(std::vector<std::string> vMore = {})
    {
        std::vector<std::string> vOptions = {"--audio", "/tmp/calls", "--log", "/tmp/driver.log"};
        vOptions.insert(vOptions.end(), vMore.begin(), vMore.end());
        return m_driver.start(vOptions);
    }

    void start(const std::string& strExample, std::vector<std::string> vArguments)
    {
        vArguments.insert(vArguments.begin(), std::string(EXAMPLES) + '/' + strExample);
        vArguments.insert(vArguments.end(), {"--sip-socket", SOCKET});
        spawn(std::move(vArguments));
    }
    void spawn(const std::vector<std::string>& vWords)
    {
        const int nOutput = openOutput("/tmp/app.out");
        ASSERT_TRUE(m_application.start(vWords, {.m_nOutput = nOutput, .m_nErrors = nOutput}));
        ::close(nOutput);
    }
    // Its exit status.
    int end(int nSignal = 0)
    {
        m_application.signal(nSignal);
        const std::optional<int> nExit = m_application.waitExit();
        EXPECT_TRUE(nExit) << printed();
        return nExit.value_or(-1);
    }

    static std::string textOf(const std::string& strPath)
    {
        std::ostringstream text;
        text << std::ifstream(strPath).rdbuf();
        return text.str();
    }
    static std::string printed() { return textOf("/tmp/app.out"); }
    static bool waitPrinted(const std::string& strText)
    {
        return waitUntil([&] { return printed().find(strText) != std::string::npos; });
    }
    static bool waitLogged(const std::string& strText)
    {
        return waitUntil([&] { return textOf("/tmp/driver.log").find(strText) != std::string::npos; });
    }
    static bool speechCheck(const std::string& strArguments)
    {
        return std::system((SPEECH_CHECK + (" " + strArguments)).c_str()) == 0;
    }

    // An inbound call that the example answers.
    void call(const std::string& strCall)
    {
        const size_t nAnswers = m_daemon.count("answer");
        m_daemon.waitRequest("register");
        m_daemon.offer(strCall);
        EXPECT_EQ(m_daemon.waitRequest("answer", nAnswers)["call"], strCall);
        m_daemon.event(strCall, 1, {{"event", "answered"}});
    }
    void press(const std::string& strCall, const char* pDigit)
    {
        m_daemon.event(strCall, 1, {{"event", "digit"}, {"digit", pDigit}, {"ms", 100}});
    }
    void endCall(const std::string& strCall, const char* pReason)
    {
        m_daemon.event(strCall, 1, {{"event", "ended"}, {"reason", pReason}, {"status", 0}});
        m_daemon.forget(strCall, 1);
    }

    CReferenceDriver m_driver;
    CScriptedCallDaemon m_daemon{SOCKET};
    CChild m_application;
};

TEST_F(CallExamples, AnsweringMachineRecordsTheCaller)
{
    std::filesystem::copy(CALLER, "/tmp/calls/n1-1.in.wav");
    ASSERT_TRUE(startDriver({"--speed", "max"}));
    start("answering_machine", {GREETING, "/tmp"});
    call("n1-1");
    EXPECT_EQ(m_daemon.waitRequest("hangup")["call"], "n1-1");
    endCall("n1-1", "local");
    ASSERT_TRUE(waitPrinted("ended n1-1/1 local"));
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_THAT(printed(), HasSubstr("offered n1-1/1 from sip:100@example.net\nanswered n1-1/1\n"));
    EXPECT_TRUE(speechCheck("recorded /tmp/n1-1.wav " + CALLER));
    EXPECT_TRUE(speechCheck("heard /tmp/calls/n1-1-1.heard.wav " + GREETING + " " + ASSETS + "/prompts/goodbye.wav"));
}

TEST_F(CallExamples, AnsweringMachineEndsTheMessageAtAHash)
{
    ASSERT_TRUE(startDriver({"--caller-end", "silence"}));
    start("answering_machine", {GREETING, "/tmp"});
    call("n1-1");
    ASSERT_TRUE(waitPrinted("recording /tmp/n1-1.wav: MCS_OK"));
    ASSERT_TRUE(waitPrinted("played MCS_OK"));
    press("n1-1", "5");
    press("n1-1", "#");
    ASSERT_TRUE(waitPrinted("recorded MCS_"));
    EXPECT_EQ(m_daemon.waitRequest("hangup")["call"], "n1-1");
    EXPECT_GT(std::filesystem::file_size("/tmp/n1-1.wav"), 44U);
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(CallExamples, AnsweringMachineServesManyAndForgetsWhoHangsUp)
{
    ASSERT_TRUE(startDriver({"--caller-end", "silence"}));
    start("answering_machine", {GREETING, "/tmp"});
    for (int n = 0; n < 10; ++n)
        call("n1-" + std::to_string(n));
    for (int n = 0; n < 10; ++n)
    {
        ASSERT_TRUE(waitPrinted("recording /tmp/n1-" + std::to_string(n) + ".wav: MCS_OK"));
        endCall("n1-" + std::to_string(n), "hangup");
        ASSERT_TRUE(waitPrinted("ended n1-" + std::to_string(n) + "/1 hangup"));
    }
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_EQ(m_daemon.count("hangup"), 0U);
}

TEST_F(CallExamples, AnsweringMachineHangsUpWithoutADriver)
{
    start("answering_machine", {GREETING, "/tmp"});
    call("n1-1");
    m_daemon.waitRequest("hangup");
    ASSERT_TRUE(waitPrinted("MCS_NOTCONNECTED"));
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(CallExamples, CallMenuIsInterruptedByKeys)
{
    ASSERT_TRUE(startDriver());
    start("call_menu", {ASSETS});
    call("n1-1");
    ASSERT_TRUE(waitLogged(" plays "));
    press("n1-1", "2");
    ASSERT_TRUE(waitPrinted("play one-new-message"));
    press("n1-1", "7");
    press("n1-1", "9");
    ASSERT_TRUE(waitPrinted("play goodbye"));
    EXPECT_EQ(m_daemon.waitRequest("hangup")["call"], "n1-1");
    endCall("n1-1", "local");
    ASSERT_TRUE(waitPrinted("ended"));
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_THAT(printed(), HasSubstr("play you-have\nplay two-new-messages\n"));
    EXPECT_THAT(textOf("/tmp/driver.log"), HasSubstr("play was cancelled"));
}

TEST_F(CallExamples, CallOutPlaysAndPrintsTheDigit)
{
    ASSERT_TRUE(startDriver());
    start("call_out", {"sip:300@example.net", GREETING});
    EXPECT_EQ(m_daemon.waitRequest("dial")["uri"], "sip:300@example.net");
    m_daemon.event("dialled-1", 1, {{"event", "progress"}, {"status", 180}});
    m_daemon.event("dialled-1", 1, {{"event", "answered"}});
    EXPECT_EQ(m_daemon.waitRequest("collect_digits")["max"], 1);
    ASSERT_TRUE(waitLogged(" plays "));
    m_daemon.event("dialled-1", 1, {{"event", "digits"}, {"digits", "5"}, {"why", "max"}});
    m_daemon.waitRequest("hangup");
    endCall("dialled-1", "local");
    EXPECT_EQ(end(), 0);
    EXPECT_THAT(printed(), HasSubstr("progress dialled-1/1 180\nanswered dialled-1/1\n"));
    EXPECT_THAT(printed(), HasSubstr("the digit is 5\n"));
}

TEST_F(CallExamples, CallOutTellsThatNobodyAnswers)
{
    start("call_out", {"sip:300@example.net", "/none.wav"});
    m_daemon.waitRequest("dial");
    endCall("dialled-1", "busy");
    EXPECT_EQ(end(), 1);
    EXPECT_THAT(printed(), HasSubstr("ended dialled-1/1 busy"));
}

TEST_F(CallExamples, CallOutTellsOfARefusal)
{
    m_daemon.refuse("dial", "refused");
    start("call_out", {"sip:300@example.net", "/none.wav"});
    EXPECT_EQ(end(), 1);
    EXPECT_THAT(printed(), HasSubstr("dial sip:300@example.net: CCS_REFUSED"));
}

TEST_F(CallExamples, ReceptionistConnects)
{
    ASSERT_TRUE(startDriver());
    start("receptionist", {GREETING, "example.net", "/tmp"});
    call("n1-1");
    EXPECT_EQ(m_daemon.waitRequest("collect_digits")["terminators"], "#");
    m_daemon.event("n1-1", 1, {{"event", "digits"}, {"digits", "300"}, {"why", "terminator"}});
    EXPECT_EQ(m_daemon.waitRequest("dial")["uri"], "sip:300@example.net");
    m_daemon.event("dialled-1", 1, {{"event", "answered"}});
    const nlohmann::json bridge = m_daemon.waitRequest("bridge");
    EXPECT_EQ(bridge["call"], "n1-1");
    EXPECT_EQ(bridge["other_call"], "dialled-1");
    endCall("dialled-1", "hangup");
    EXPECT_EQ(m_daemon.waitRequest("hangup")["call"], "n1-1");
    endCall("n1-1", "local");
    ASSERT_TRUE(waitPrinted("ended n1-1/1"));
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(CallExamples, ReceptionistTakesAMessageWhenNobodyAnswers)
{
    ASSERT_TRUE(startDriver({"--caller-end", "silence"}));
    start("receptionist", {GREETING, "example.net", "/tmp"});
    call("n1-1");
    m_daemon.waitRequest("collect_digits");
    m_daemon.event("n1-1", 1, {{"event", "digits"}, {"digits", "300"}, {"why", "timeout"}});
    m_daemon.waitRequest("dial");
    endCall("dialled-1", "no-answer");
    ASSERT_TRUE(waitPrinted("recording /tmp/n1-1.wav: MCS_OK"));
    ASSERT_TRUE(waitPrinted("played MCS_OK"));
    press("n1-1", "#");
    EXPECT_EQ(m_daemon.waitRequest("hangup")["call"], "n1-1");
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(CallExamples, TellTheirUsage)
{
    for (const std::string strExample : {"answering_machine", "call_menu", "call_out", "receptionist"})
    {
        start(strExample, {});
        EXPECT_EQ(end(), 2);
        EXPECT_THAT(printed(), HasSubstr("usage: " + strExample + ' '));
    }
}

TEST_F(CallExamples, EndAtASignalAlsoWithoutDaemonAndDriver)
{
    start("receptionist", {"/none.wav", "example.net", "/tmp"});
    ASSERT_TRUE(waitPrinted("connected"));
    m_daemon.die();
    ASSERT_TRUE(waitPrinted("lost"));
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(CallExamples, ThePythonGameOfThePageIsPlayed)
{
    spawn({"python3", PYTHON_EXAMPLE, SOCKET});
    call("n1-1");
    EXPECT_EQ(m_daemon.waitRequest("collect_digits")["call"], "n1-1");
    ASSERT_TRUE(waitPrinted("guess"));
    for (int n = 0; n < 10 && m_daemon.count("hangup") == 0; ++n)
    {
        m_daemon.event("n1-1", 1, {{"event", "digits"}, {"digits", std::to_string(n)}, {"why", "max"}});
        ASSERT_TRUE(waitUntil([&] {
            return m_daemon.count("hangup") == 1 || m_daemon.count("collect_digits") == static_cast<size_t>(n) + 2;
        })) << printed();
    }
    EXPECT_EQ(m_daemon.count("hangup"), 1U);
    EXPECT_EQ(m_daemon.count("send_digits"), 1U);
    endCall("n1-1", "local");
    EXPECT_TRUE(waitPrinted("n1-1 ended: local"));
}
} // namespace
