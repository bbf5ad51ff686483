// A connection of the control socket: lines, answers, and how it ends.
#include "ControlConnection.h"

#include <gmock/gmock.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{
class ControlConnection : public testing::Test
{
protected:
    ControlConnection()
    {
        std::array<int, 2> fds = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds.data()), 0);
        m_fdPeer = CFd(fds[0]);
        m_connection = CControlConnection(CFd(fds[1]));
    }

    void send(const std::string& strText)
    {
        const int nBytes = 1 << 18;
        ::setsockopt(m_fdPeer.get(), SOL_SOCKET, SO_SNDBUF, &nBytes, sizeof(nBytes));
        ASSERT_EQ(::send(m_fdPeer.get(), strText.data(), strText.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(strText.size()));
    }
    std::string received()
    {
        std::string strText(2000000, '\0');
        const ssize_t nRead = ::recv(m_fdPeer.get(), strText.data(), strText.size(), 0);
        strText.resize(nRead < 0 ? 0 : static_cast<size_t>(nRead));
        return strText;
    }
    bool serve()
    {
        return m_connection.serve([this](const std::string& strLine) {
            m_vLines.push_back(strLine);
            return m_strAnswer.empty() ? "got " + strLine : m_strAnswer;
        });
    }
    // Serves for as long as there is something to do. False when the connection is over.
    bool serveAll()
    {
        for (int nTurn = 0; nTurn < 20; ++nTurn)
            if (!serve())
                return false;
        return true;
    }
    bool awaitsInput() const { return m_connection.awaitedEvents() == EPOLLIN; }
    bool awaitsRoom() const { return m_connection.awaitedEvents() == EPOLLOUT; }

    CFd m_fdPeer;
    CControlConnection m_connection{CFd()};
    std::vector<std::string> m_vLines;
    std::string m_strAnswer; // empty: the line comes back
};
} // namespace

TEST_F(ControlConnection, AnswersOneLineAtATime)
{
    send("one\ntwo\n");
    EXPECT_TRUE(serve());
    EXPECT_EQ(received(), "got one\n");
    EXPECT_TRUE(awaitsRoom());
    EXPECT_TRUE(serve());
    EXPECT_EQ(received(), "got two\n");
    EXPECT_TRUE(awaitsInput());
}

TEST_F(ControlConnection, DoesNothingWhenThereIsNothing)
{
    EXPECT_TRUE(serveAll());
    EXPECT_TRUE(awaitsInput());
    EXPECT_THAT(m_vLines, IsEmpty());
}

TEST_F(ControlConnection, PutsALineTogether)
{
    for (const char* pPart : {"he", "l", "lo"})
    {
        send(pPart);
        EXPECT_TRUE(serve());
        EXPECT_TRUE(awaitsInput());
    }
    send("\nwor");
    EXPECT_TRUE(serveAll());
    EXPECT_THAT(m_vLines, ElementsAre("hello"));
    EXPECT_TRUE(awaitsInput());
}

TEST_F(ControlConnection, TakesAnyBytesForALine)
{
    std::string strAll;
    for (int n = 0; n < 256; ++n)
        strAll += n == '\n' ? ' ' : static_cast<char>(n);
    send(strAll + "\n\n");
    EXPECT_TRUE(serveAll());
    EXPECT_THAT(m_vLines, ElementsAre(strAll, ""));
}

TEST_F(ControlConnection, TakesALineOfTheLongestLength)
{
    const std::string strLine(CControlConnection::MAX_LINE, 'x');
    send(strLine + '\n' + strLine + '\n');
    EXPECT_TRUE(serveAll());
    EXPECT_THAT(m_vLines, ElementsAre(strLine, strLine));
}

TEST_F(ControlConnection, IsOverAfterALineThatIsTooLong)
{
    send("one\n" + std::string(CControlConnection::MAX_LINE + 1, 'x') + "\nmore\n");
    EXPECT_FALSE(serveAll());
    EXPECT_THAT(m_vLines, ElementsAre("one"));
    EXPECT_EQ(received(), "got one\n{\"ok\":false,\"error\":\"the line is too long\"}\n");
}

TEST_F(ControlConnection, DoesNotWaitForTheEndOfALineThatIsTooLong)
{
    send(std::string(CControlConnection::MAX_LINE + 1, 'x'));
    EXPECT_FALSE(serveAll());
    EXPECT_EQ(received(), "{\"ok\":false,\"error\":\"the line is too long\"}\n");
}

TEST_F(ControlConnection, AnswersAllLinesOfAPeerThatHasSaidItsLast)
{
    send("one\ntwo\nhal");
    ::shutdown(m_fdPeer.get(), SHUT_WR);
    EXPECT_FALSE(serveAll());
    EXPECT_EQ(received(), "got one\ngot two\n");
    EXPECT_THAT(m_vLines, ElementsAre("one", "two"));
}

TEST_F(ControlConnection, CarriesOutTheWholeLineOfAPeerThatHasLeft)
{
    send("thaw\nhal");
    m_fdPeer.close();
    EXPECT_FALSE(serveAll());
    EXPECT_THAT(m_vLines, ElementsAre("thaw"));
}

TEST_F(ControlConnection, TakesNoLineBeforeItsLastAnswerIsTaken)
{
    m_strAnswer = std::string(1000000, 'a');
    send("one\ntwo\n");
    EXPECT_TRUE(serveAll());
    EXPECT_THAT(m_vLines, ElementsAre("one"));
    EXPECT_TRUE(awaitsRoom());
    size_t nReceived = 0;
    while (nReceived < 2000002)
    {
        ASSERT_TRUE(serve());
        nReceived += received().size();
    }
    EXPECT_THAT(m_vLines, ElementsAre("one", "two"));
    EXPECT_TRUE(awaitsInput());
}

TEST_F(ControlConnection, IsOverWhenThePeerLeavesItsAnswer)
{
    m_strAnswer = std::string(1000000, 'a');
    send("one\n");
    EXPECT_TRUE(serveAll());
    m_fdPeer.close();
    EXPECT_FALSE(serveAll());
}
