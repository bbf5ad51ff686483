// askDriver beside a control socket that answers as a test wants.
#include "SampleFiles.h"

#include "driver/DriverControl.h"

#include <gmock/gmock.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using testing::HasSubstr;

namespace
{
const std::string SOCKET = "/tmp/control.sock";
const std::chrono::milliseconds LONG(30000);

// Takes one connection, reads a request of it, answers with these bytes, and hangs up or waits for the client to.
class CFakeControl
{
public:
    CFakeControl(std::string strAnswer, bool bHangsUp) : m_nListener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        SOCKET.copy(address.sun_path, SOCKET.size());
        EXPECT_EQ(bind(m_nListener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(m_nListener, 1), 0);
        m_thread = std::thread([this, strAnswer = std::move(strAnswer), bHangsUp] {
            const int nClient = accept(m_nListener, nullptr, nullptr);
            char szRequest[256];
            const ssize_t nRead = recv(nClient, szRequest, sizeof(szRequest), 0);
            m_strRequest.assign(szRequest, static_cast<size_t>(std::max<ssize_t>(nRead, 0)));
            send(nClient, strAnswer.data(), strAnswer.size(), MSG_NOSIGNAL);
            while (!bHangsUp && recv(nClient, szRequest, sizeof(szRequest), 0) > 0)
                continue;
            close(nClient);
        });
    }
    ~CFakeControl()
    {
        join();
        close(m_nListener);
    }
    CFakeControl(const CFakeControl&) = delete;
    CFakeControl& operator=(const CFakeControl&) = delete;

    const std::string& request()
    {
        join();
        return m_strRequest;
    }

private:
    void join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

    const int m_nListener;
    std::string m_strRequest;
    std::thread m_thread;
};

std::string errorOf(const std::string& strAnswer, bool bHangsUp, std::chrono::milliseconds limit = LONG)
{
    CFakeControl control(strAnswer, bHangsUp);
    nlohmann::ordered_json answer;
    std::string strError;
    EXPECT_FALSE(askDriver(SOCKET, "clients", limit, answer, strError));
    unlink(SOCKET.c_str());
    return strError;
}
} // namespace

TEST(DriverControl, GivesTheAnswerWithoutItsOk)
{
    CFakeControl control("{\"ok\": true, \"clients\": [7]}\n", false);
    nlohmann::ordered_json answer;
    std::string strError;
    EXPECT_TRUE(askDriver(SOCKET, "clients", LONG, answer, strError)) << strError;
    EXPECT_EQ(answer.dump(), "{\"clients\":[7]}");
    EXPECT_EQ(control.request(), "{\"request\":\"clients\"}\n");
}

TEST(DriverControl, ARefusalAndWhatIsNoAnswerAreToldAsSuch)
{
    for (const char* const pszAnswer : {"{\"ok\": false}\n", "{\"clients\": []}\n", "[1]\n", "{\"ok\"\n", "\n"})
        EXPECT_THAT(errorOf(pszAnswer, false), HasSubstr("the driver refused \"clients\"")) << pszAnswer;
}

TEST(DriverControl, AnAnswerThatBreaksOffIsNone)
{
    EXPECT_THAT(errorOf("{\"ok\": true", true), HasSubstr("Connection reset by peer"));
}

TEST(DriverControl, SilenceEndsAtTheLimit)
{
    EXPECT_THAT(errorOf("", false, std::chrono::milliseconds(50)), HasSubstr("Connection timed out"));
}

TEST(DriverControl, APathThatNoSocketCanHaveIsToldAsSuch)
{
    nlohmann::ordered_json answer;
    std::string strError;
    EXPECT_FALSE(askDriver("/tmp/" + std::string(200, 's'), "clients", LONG, answer, strError));
    EXPECT_THAT(strError, HasSubstr("File name too long"));
}
