// The log's own thread: the order of the lines, a log that cannot be written, and the end.
#include "BackgroundSink.h"

#include <gmock/gmock.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <latch>
#include <mutex>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{
// Hangs at its first line until it is let go.
class CStalledSink : public spdlog::sinks::base_sink<std::mutex>
{
public:
    std::vector<std::string> m_vLines;
    std::latch m_begun{1};
    std::latch m_goOn{1};
    std::thread::id m_thread;

protected:
    void sink_it_(const spdlog::details::log_msg& message) override
    {
        if (m_vLines.empty())
        {
            m_begun.count_down();
            m_goOn.wait();
        }
        m_thread = std::this_thread::get_id();
        m_vLines.emplace_back(message.payload.data(), message.payload.size());
    }
    void flush_() override {}
};

class BackgroundSink : public testing::Test
{
protected:
    void start(std::chrono::milliseconds patience = CWorker::PATIENCE)
    {
        m_pSink = std::make_shared<CBackgroundSink>(m_pStalled, patience);
        std::string strError;
        ASSERT_TRUE(m_pSink->start(strError)) << strError;
        m_pLogger = std::make_shared<spdlog::logger>("test", m_pSink);
    }

    const std::shared_ptr<CStalledSink> m_pStalled = std::make_shared<CStalledSink>();
    std::shared_ptr<CBackgroundSink> m_pSink;
    std::shared_ptr<spdlog::logger> m_pLogger;
};
} // namespace

TEST_F(BackgroundSink, WritesTheLinesInOrderOnAThreadOfItsOwn)
{
    start();
    std::vector<std::string> vExpected;
    for (int n = 0; n < 1000; ++n)
    {
        vExpected.push_back("line " + std::to_string(n));
        m_pLogger->info("line {}", n); // none of them waits for the first one
    }
    m_pStalled->m_goOn.count_down();
    EXPECT_TRUE(m_pSink->finish());
    EXPECT_EQ(m_pStalled->m_vLines, vExpected);
    EXPECT_NE(m_pStalled->m_thread, std::this_thread::get_id());
}

TEST_F(BackgroundSink, LeavesLinesOutWhileThereIsNoRoomAndSaysHowMany)
{
    start();
    const std::string strLong(CBackgroundSink::MAX_BYTES / 4, 'x');
    for (int n = 0; n < 10; ++n)
        m_pLogger->info("{}{}", n, strLong);
    m_pStalled->m_goOn.count_down();
    EXPECT_TRUE(m_pSink->finish());
    m_pLogger->info("there is room again");
    EXPECT_TRUE(m_pSink->finish());
    ASSERT_EQ(m_pStalled->m_vLines.size(), 5U);
    EXPECT_EQ(m_pStalled->m_vLines[2], "2" + strLong);
    EXPECT_THAT(m_pStalled->m_vLines[3], HasSubstr("left out 7 lines"));
    EXPECT_EQ(m_pStalled->m_vLines[4], "there is room again");
}

TEST_F(BackgroundSink, SaysWhatWasLeftOutBeforeTheNextLine)
{
    start();
    const std::string strLong(CBackgroundSink::MAX_BYTES, 'x');
    m_pLogger->info("first");
    m_pLogger->info("{}", strLong);
    m_pLogger->info("last");
    m_pStalled->m_goOn.count_down();
    EXPECT_TRUE(m_pSink->finish());
    EXPECT_THAT(m_pStalled->m_vLines, ElementsAre("first", HasSubstr("left out 1 lines"), "last"));
}

TEST_F(BackgroundSink, GivesUpALogThatCannotBeWrittenAtTheEnd)
{
    start(std::chrono::milliseconds(20));
    m_pLogger->info("first");
    m_pStalled->m_begun.wait();
    EXPECT_FALSE(m_pSink->finish());
    m_pLogger.reset();
    m_pSink.reset();
    m_pStalled->m_goOn.count_down();
}
