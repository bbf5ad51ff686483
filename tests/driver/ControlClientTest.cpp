// "zelmedia-driver ctl": words into a request, the answer onto the terminal, exit codes.
#include "ControlClient.h"

#include "Fd.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <thread>

using std::chrono::milliseconds;
using testing::HasSubstr;

namespace
{
const std::string CLIENT_SOCKET_PATH = "/tmp/control-client-test.sock";

sockaddr_un unixAddress()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    CLIENT_SOCKET_PATH.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

CFd listen()
{
    ::unlink(CLIENT_SOCKET_PATH.c_str());
    CFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = unixAddress();
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(fd.get(), 0), 0);
    return fd;
}

// Takes one connection and one line, answers in parts, and hangs up.
class CFakeDriver
{
public:
    explicit CFakeDriver(std::vector<std::string> vAnswer, size_t nReadAtMost = SIZE_MAX)
        : m_fdListen(listen()),
          m_thread([this, vAnswer = std::move(vAnswer), nReadAtMost] { run(vAnswer, nReadAtMost); })
    {
    }
    ~CFakeDriver()
    {
        if (m_thread.joinable())
            m_thread.join();
        ::unlink(CLIENT_SOCKET_PATH.c_str());
    }

    // What was asked.
    const std::string& line()
    {
        m_thread.join();
        return m_strLine;
    }

private:
    void run(const std::vector<std::string>& vAnswer, size_t nReadAtMost)
    {
        const CFd fd(::accept(m_fdListen.get(), nullptr, nullptr));
        char c = 0;
        while (m_strLine.size() < nReadAtMost && ::recv(fd.get(), &c, 1, 0) == 1 && c != '\n')
            m_strLine += c;
        for (const std::string& strPart : vAnswer)
            ::send(fd.get(), strPart.data(), strPart.size(), MSG_NOSIGNAL);
    }

    CFd m_fdListen;
    std::string m_strLine;
    std::thread m_thread;
};

struct COutcome
{
    int m_nExitCode;
    std::string m_strOut;
    std::string m_strErr;
};

COutcome control(const std::vector<std::string>& vWords, milliseconds limit = std::chrono::seconds(60),
                 const std::string& strPath = CLIENT_SOCKET_PATH)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int nExitCode = runControl(strPath, vWords, limit);
    const std::string strOut = testing::internal::GetCapturedStdout();
    return {nExitCode, strOut, testing::internal::GetCapturedStderr()};
}

// The line that goes to the driver.
std::string lineOf(const std::vector<std::string>& vWords)
{
    CFakeDriver driver({"{\"ok\":true}\n"});
    EXPECT_EQ(control(vWords).m_nExitCode, 0);
    return driver.line();
}

COutcome onAnswer(const std::vector<std::string>& vAnswer)
{
    CFakeDriver driver(vAnswer);
    return control({"ping"});
}
} // namespace

TEST(ControlClient, MakesARequestOfWords)
{
    EXPECT_EQ(lineOf({"stats"}), R"({"request":"stats"})");
    EXPECT_EQ(lineOf({"fault", "do=refuse", "on=playfile", "nth=3"}),
              R"({"do":"refuse","nth":3,"on":"playfile","request":"fault"})");
    EXPECT_EQ(lineOf({"hangup", "call=1001", "leg=1"}), R"({"call":"1001","leg":1,"request":"hangup"})");
}

TEST(ControlClient, PassesAnObjectOnAsItIs)
{
    EXPECT_EQ(lineOf({R"({"request": "ping"})"}), R"({"request": "ping"})");
    EXPECT_EQ(lineOf({"{\n\"request\":\n\"ping\"}"}), R"({ "request": "ping"})");
    EXPECT_EQ(lineOf({"{no json"}), "{no json");
}

TEST(ControlClient, PassesWordsThatAreNoTextOn)
{
    EXPECT_EQ(lineOf({"hangup", "call=\xff"}), "{\"call\":\"\xef\xbf\xbd\",\"request\":\"hangup\"}");
}

TEST(ControlClient, RefusesWordsThatMakeNoRequest)
{
    COutcome outcome = control({});
    EXPECT_EQ(outcome.m_nExitCode, 2);
    EXPECT_THAT(outcome.m_strErr, HasSubstr("zelmedia-driver ctl help"));
    outcome = control({"hangup", "1001"});
    EXPECT_EQ(outcome.m_nExitCode, 2);
    EXPECT_EQ(outcome.m_strErr, "zelmedia-driver: \"1001\" is not of the form key=value\n");
    EXPECT_EQ(control({"fault", "request=die"}).m_nExitCode, 2);
}

TEST(ControlClient, PrintsTheAnswerReadablyAndInItsOrder)
{
    const COutcome outcome = onAnswer({"{\"ok\":true,\"z\":1,\"a\":[", "{\"b\":null}", "]}\n"});
    EXPECT_EQ(outcome.m_nExitCode, 0);
    EXPECT_EQ(outcome.m_strOut, "{\n"
                                "  \"ok\": true,\n"
                                "  \"z\": 1,\n"
                                "  \"a\": [\n"
                                "    {\n"
                                "      \"b\": null\n"
                                "    }\n"
                                "  ]\n"
                                "}\n");
    EXPECT_EQ(outcome.m_strErr, "");
}

TEST(ControlClient, TakesALargeAnswer)
{
    const std::string strText(5000000, 'x');
    const COutcome outcome = onAnswer({R"({"ok":true,"text":")", strText, "\"}\n"});
    EXPECT_EQ(outcome.m_nExitCode, 0);
    EXPECT_THAT(outcome.m_strOut, HasSubstr(strText));
}

TEST(ControlClient, PrintsARefusalOnTheStandardError)
{
    const COutcome outcome = onAnswer({"{\"ok\":false,\"error\":\"there is no client 3\"}\n"});
    EXPECT_EQ(outcome.m_nExitCode, 1);
    EXPECT_EQ(outcome.m_strOut, "");
    EXPECT_EQ(outcome.m_strErr, "zelmedia-driver: there is no client 3\n");
    EXPECT_EQ(onAnswer({"{\"ok\":false}\n"}).m_strErr, "zelmedia-driver: the driver refuses\n");
}

TEST(ControlClient, SaysWhenThereIsNoDriver)
{
    COutcome outcome = control({"ping"}, milliseconds(60000), "/tmp/none.sock");
    EXPECT_EQ(outcome.m_nExitCode, 1);
    EXPECT_EQ(outcome.m_strErr,
              "zelmedia-driver: no driver answers at \"/tmp/none.sock\": No such file or directory\n");
    listen().close();
    outcome = control({"ping"});
    EXPECT_EQ(outcome.m_nExitCode, 1);
    EXPECT_THAT(outcome.m_strErr, HasSubstr("Connection refused"));
    outcome = control({"ping"}, milliseconds(60000), "/tmp/" + std::string(200, 'x'));
    EXPECT_EQ(outcome.m_nExitCode, 1);
    EXPECT_THAT(outcome.m_strErr, HasSubstr("File name too long"));
}

TEST(ControlClient, DoesNotWaitForEverForAnAnswer)
{
    const CFd fdSilent = listen();
    const COutcome outcome = control({"ping"}, milliseconds(50));
    EXPECT_EQ(outcome.m_nExitCode, 1);
    EXPECT_THAT(outcome.m_strErr, HasSubstr("Connection timed out"));
}

TEST(ControlClient, DoesNotWaitForEverForRoom)
{
    const CFd fdSilent = listen();
    const COutcome outcome = control({"{" + std::string(4000000, ' ')}, milliseconds(50));
    EXPECT_EQ(outcome.m_nExitCode, 1);
    EXPECT_THAT(outcome.m_strErr, HasSubstr("Connection timed out"));
}

TEST(ControlClient, SaysWhenTheDriverEndsBeforeItsAnswerDoes)
{
    for (const char* pPart : {"", "{\"ok\":true}"})
    {
        const COutcome outcome = onAnswer({pPart});
        EXPECT_EQ(outcome.m_nExitCode, 1);
        EXPECT_EQ(outcome.m_strOut, "");
        EXPECT_THAT(outcome.m_strErr, HasSubstr("Connection reset by peer"));
    }
}

TEST(ControlClient, PrintsTheAnswerOfADriverThatDoesNotReadOn)
{
    CFakeDriver driver({"{\"ok\":false,\"error\":\"the line is too long\"}\n"}, 10);
    const COutcome outcome = control({"{" + std::string(4000000, ' ')});
    EXPECT_EQ(outcome.m_nExitCode, 1);
    EXPECT_EQ(outcome.m_strErr, "zelmedia-driver: the line is too long\n");
}

TEST(ControlClient, TakesNothingButAnAnswerForAnAnswer)
{
    const std::string strDeep = std::string(2000000, '[') + std::string(2000000, ']');
    for (const std::string& strAnswer : {std::string("hello"), std::string("{}"), std::string("[]"),
                                         std::string("{\"ok\":1}"), strDeep, "{\"ok\":true,\"x\":" + strDeep + "}"})
    {
        const COutcome outcome = onAnswer({strAnswer, "\n"});
        EXPECT_EQ(outcome.m_nExitCode, 1);
        EXPECT_EQ(outcome.m_strErr, "zelmedia-driver: the answer is none of a driver\n");
    }
}

TEST(ControlClient, PrintsNoControlCharacters)
{
    EXPECT_EQ(onAnswer({R"({"ok":false,"error":"\u001b[2J"})", "\n"}).m_strErr, "zelmedia-driver: \\x1b[2J\n");
    EXPECT_THAT(onAnswer({R"({"ok":true,"x":"\u001b[2J"})", "\n"}).m_strOut, HasSubstr("\\u001b[2J"));
}
