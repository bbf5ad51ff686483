// The modes of everything that library and driver make, for every usual umask, and who can then connect.
#include "Places.h"
#include "WithDriver.h"

namespace
{
const char SETPRIV[] = "/usr/bin/setpriv";

unsigned int modeOf(const std::string& strPath)
{
    return statusOf(strPath).st_mode & 07777;
}

// Library and driver have the same umask.
class Umask : public CWithDriverTest, public testing::WithParamInterface<mode_t>
{
protected:
    Umask() : m_nBefore(umask(GetParam())) {}
    ~Umask() override { umask(m_nBefore); }

    static unsigned int less(unsigned int nMode) { return nMode & ~GetParam(); }

private:
    const mode_t m_nBefore;
};
} // namespace

TEST_P(Umask, IsTakenFromTheModesOfPipesLogsAndAudioFilesButNotOfTheRequestPipe)
{
    ASSERT_TRUE(startDriver());
    m_pServices = std::make_unique<CZelMediaServices>(&m_completions);
    CZelMediaStream* pStream = nullptr;
    ASSERT_TRUE(waitUntil([&] { return m_pServices->openMediaStream(&pStream, "call", 1) == MCS_OK; }));
    m_vStreams.push_back(pStream);
    EXPECT_EQ(MCS_OK, play(pStream, SHORT_FILE));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ(MCS_OK, pStream->recordToFile(text("/tmp/message.ul"), 0, 5, 60, 0));

    EXPECT_EQ(less(0666), modeOf(responsePipe()));
    EXPECT_EQ(less(0666), modeOf(eventPipe()));
    EXPECT_EQ(less(0640), modeOf(defaultLog()));
    EXPECT_EQ(0666u, modeOf(MI_REQUEST_PIPE));
    EXPECT_EQ(0600u, modeOf("/tmp/zelmedia-driver.sock"));
    EXPECT_EQ(less(0666), modeOf("/tmp/driver.log"));
    EXPECT_EQ(less(0666), modeOf("/tmp/calls/call-1.heard.wav"));
    EXPECT_EQ(less(0666), modeOf("/tmp/message.ul"));
}

TEST_P(Umask, LetsTheDriverOfAnotherUserAnswerOnlyWhenItIs0)
{
    const std::vector<std::string> vDriver = {"--reuid=65534", "--clear-groups",    "--",      REFERENCE_DRIVER_PROGRAM,
                                              "--audio",       "/tmp/others-calls", "--speed", "max"};
    ASSERT_EQ(0, mkdir("/tmp/others-calls", 0777));
    std::vector<std::string> vWithLog = vDriver;
    vWithLog.insert(vWithLog.end(), {"--log", "/tmp/others-calls/driver.log"});
    if (!giveToOtherUser("/tmp/others-calls") || !m_driver.start(SETPRIV, vWithLog))
        GTEST_SKIP() << "no driver of another user can be started here";
    startLibrary();
    if (GetParam() == 0)
    {
        ASSERT_TRUE(waitConnected());
        EXPECT_EQ(MCS_OK, play(open("call"), SHORT_FILE));
        EXPECT_TRUE(m_completions.waitCount(1));
        return;
    }
    EXPECT_TRUE(waitUntil([] {
        const std::string strLog = contentOf("/tmp/others-calls/driver.log");
        return strLog.find(responsePipe()) != std::string::npos &&
               strLog.find("Permission denied") != std::string::npos;
    }));
    CZelMediaStream* pStream = nullptr;
    EXPECT_EQ(MCS_NOTCONNECTED, m_pServices->openMediaStream(&pStream, "call", 1)); // when the connect has ended
}

INSTANTIATE_TEST_SUITE_P(Of, Umask, testing::Values(0, 022, 077), [](const auto& mask) {
    return mask.param == 0 ? "Mask000" : mask.param == 022 ? "Mask022" : "Mask077";
});
