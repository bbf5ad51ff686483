// The event thread's loop: what it reads, what it passes over, how it ends.
#include "EventThreadFixture.h"
#include "PlatformSeams.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

class MIntfEventThreadLoop : public CEventThreadTest
{
protected:
    typedef std::chrono::steady_clock Clock;

    void writeEvent(const structMIEVT& evt) const
    {
        ASSERT_EQ(static_cast<ssize_t>(sizeof(evt)), write(m_pmintf->m_npipeEvt, &evt, sizeof(evt)));
    }

    void requestStop() { storeUnlocked(m_pmintf->m_bEventThreadStop, 1); }

    // Stops the loop as CMIntf's owner does, but without a line.
    void stop()
    {
        requestStop();
        writeEvent({MIEVT_NULL, 0, 0, 0});
    }

    // Runs the loop on this thread until a line has this part.
    CLogLines runUntil(const char* pszPart)
    {
        CLineHook hook(m_pLog, [this, pszPart](const std::string& strLine) {
            if (contains(strLine, pszPart))
                requestStop();
        });
        m_newLines.beginHere();
        m_pmintf->eventThreadFunc();
        return m_newLines.get();
    }

    bool eventPipeIsDrained() const
    {
        const auto limit = Clock::now() + std::chrono::seconds(30);
        int nBytes = 1;
        while (ioctl(m_pmintf->m_npipeEvt, FIONREAD, &nBytes) == 0 && nBytes > 0 && Clock::now() < limit)
            std::this_thread::yield();
        return nBytes == 0;
    }

    // Puts another descriptor in the place of the event pipe while it lives.
    class CEventDescriptor
    {
    public:
        CEventDescriptor(CMIntf* pmintf, int nDescriptor) : m_pmintf(pmintf), m_nKept(pmintf->m_npipeEvt)
        {
            pmintf->m_npipeEvt = nDescriptor;
        }
        ~CEventDescriptor()
        {
            if (m_pmintf->m_npipeEvt != -1)
                close(m_pmintf->m_npipeEvt);
            m_pmintf->m_npipeEvt = m_nKept;
        }
        CEventDescriptor(const CEventDescriptor&) = delete;
        CEventDescriptor& operator=(const CEventDescriptor&) = delete;

    private:
        CMIntf* const m_pmintf;
        const int m_nKept;
    };

    const CLogLine m_lineStarting = infoLine("CMIntf::eventThreadFunc - starting");
    const CLogLine m_lineStopping = infoLine("CMIntf::eventThreadFunc - stopping");
};

TEST_F(MIntfEventThreadLoop, StopFlagEndsItBeforeAnythingIsRead)
{
    play(5);
    writeEvent({MIEVT_DONE, 5, 1, 0});
    requestStop();
    m_newLines.beginHere();
    m_pmintf->eventThreadFunc();
    EXPECT_EQ((CLogLines{m_lineStarting, m_lineStopping}), m_newLines.get());
    EXPECT_EQ(0, m_pmintf->m_bEventThreadRunning);
    EXPECT_EQ(1u, takeEvents().size());
    EXPECT_TRUE(m_handler.m_vReports.empty());
}

TEST_F(MIntfEventThreadLoop, RunningFlagIsSetWhileItRuns)
{
    std::vector<int> vRunning;
    requestStop();
    writeEvent({MIEVT_NULL, 0, 0, 0});
    {
        CLineHook hook(m_pLog,
                       [&](const std::string&) { vRunning.push_back(loadUnlocked(m_pmintf->m_bEventThreadRunning)); });
        CMIntf::eventThread(m_pmintf);
    }
    EXPECT_EQ((std::vector<int>{1, 1}), vRunning);
    EXPECT_EQ(0, m_pmintf->m_bEventThreadRunning);
}

TEST_F(MIntfEventThreadLoop, EventsAreWorkedOffInTheirOrder)
{
    play(5);
    play(6);
    writeEvent({MIEVT_DONE, 6, 2, 0});
    writeEvent({MIEVT_DONE, 5, 1, 3});
    const CLogLines vLines = runUntil("stat 3");
    // The flag is seen after the next wait.
    EXPECT_EQ(m_lineStarting, vLines.front());
    EXPECT_EQ(m_lineStopping, vLines.back());
    EXPECT_EQ((CReports{{6, 0, PLAY}, {5, 3, PLAY}}), m_handler.m_vReports);
    expectNothingLeft();
}

TEST_F(MIntfEventThreadLoop, OtherEventsAreIgnored)
{
    play(5);
    m_newLines.beginHere();
    std::thread thread([this] { m_pmintf->eventThreadFunc(); });
    writeEvent({MIEVT_NULL, 5, 1, 0});
    writeEvent({static_cast<MIEVT>(2), 5, 1, 0});
    writeEvent({static_cast<MIEVT>(-1), 5, 1, 45});
    EXPECT_TRUE(eventPipeIsDrained());
    stop();
    thread.join();
    EXPECT_EQ((CLogLines{m_lineStarting, m_lineStopping}), m_newLines.get());
    EXPECT_EQ(1u, m_pmintf->m_mapActiveCommandByStreamIDPlay.size());
}

TEST_F(MIntfEventThreadLoop, ShortRecordIsUsedAsRead)
{
    play(5);
    const structMIEVT evt = {MIEVT_DONE, 5, 1, 0};
    ASSERT_EQ(12, write(m_pmintf->m_npipeEvt, &evt, 12)); // the status stays 0
    const CLogLines vLines = runUntil("read event");
    EXPECT_EQ(readLines(5, 1, 0)[0], vLines.at(1));
    EXPECT_EQ((CReports{{5, 0, PLAY}}), m_handler.m_vReports);
    EXPECT_EQ(0u, m_pLog->count("(Error)"));
}

TEST_F(MIntfEventThreadLoop, FailedWaitIsLoggedAndTheLoopGoesOn)
{
    CEventDescriptor replaced(m_pmintf, -1);
    int nErrors = 0;
    {
        CLineHook hook(m_pLog, [&](const std::string& strLine) {
            if (contains(strLine, "eventThreadFunc - error") && ++nErrors == 2)
                requestStop();
        });
        m_newLines.beginHere();
        m_pmintf->eventThreadFunc();
    }
    const CLogLine lineError = errorLine(text("(Error) CMIntf::eventThreadFunc - error %d", EBADF));
    EXPECT_EQ((CLogLines{m_lineStarting, lineError, lineError, m_lineStopping}), m_newLines.get());
}

TEST_F(MIntfEventThreadLoop, FailedReadIsLoggedAndTheLoopGoesOn)
{
    CEventDescriptor replaced(m_pmintf, open("/tmp", O_RDONLY | O_CLOEXEC)); // readable, but not by read
    const CLogLines vLines = runUntil("error reading event pipe");
    EXPECT_EQ((CLogLines{m_lineStarting,
                         errorLine(text("(Error) CMIntf::eventThreadFunc, error reading event pipe %d", EISDIR)),
                         m_lineStopping}),
              vLines);
}

TEST_F(MIntfEventThreadLoop, EndOfFileIsAFailedRead)
{
    play(5);
    CEventDescriptor replaced(m_pmintf, open("/dev/null", O_RDONLY | O_CLOEXEC));
    const CLogLines vLines = runUntil("error reading event pipe");
    ASSERT_EQ(3u, vLines.size());
    EXPECT_EQ(0u, vLines[1].strText.rfind("(Error) CMIntf::eventThreadFunc, error reading event pipe ", 0));
    EXPECT_EQ(1u, vLines[1].ulMask);
    EXPECT_EQ(64, vLines[1].nPriority);
}

TEST_F(MIntfEventThreadLoop, ExceptionOfAHandlerEndsIt)
{
    CCallingHandler handler([] { throw std::runtime_error("the application's"); });
    CMIntf::CCommand* const pcommand = sendCommand(5, MICMD_PLAYFILE, 300, &handler);
    writeEvent({MIEVT_DONE, 5, 1, 0});
    const CLogLines vExpected =
        CLogLines{m_lineStarting} + readLines(5, 1, 0) + matchedLines(pcommand) + reportedLines(5, 1) +
        CLogLines{destroyedLine(pcommand), errorLine("(Error) CMIntf::eventThreadFunc had an exception"),
                  m_lineStopping};
    m_newLines.beginHere();
    m_pmintf->eventThreadFunc();
    EXPECT_EQ(vExpected, m_newLines.get());
    EXPECT_EQ(0, m_pmintf->m_bEventThreadRunning);
    EXPECT_EQ(0, m_pmintf->m_pCritSecCMIntf->depth());
    expectNothingLeft();
}

TEST_F(MIntfEventThreadLoop, ExceptionThatIsNoClassEndsItToo)
{
    CCallingHandler handler([] { throw 5; });
    sendCommand(5, MICMD_PLAYFILE, 300, &handler);
    sendCommand(5, MICMD_PLAYFILE, 300, &handler); // would have been started next
    writeEvent({MIEVT_DONE, 5, 1, 0});
    m_pmintf->eventThreadFunc();
    EXPECT_TRUE(m_pLog->has(errorLine("(Error) CMIntf::eventThreadFunc had an exception")));
    expectNothingLeft();
}

// Events that come together are read without a wait for each after the first few of them.
TEST_F(MIntfEventThreadLoop, BurstIsWorkedOffInItsOrderToItsLastEvent)
{
    CReports vExpected;
    for (int nStreamID = 1; nStreamID <= 200; ++nStreamID)
    {
        play(nStreamID);
        writeEvent({MIEVT_DONE, nStreamID, static_cast<uint32_t>(nStreamID), 1000 + nStreamID});
        vExpected.push_back({nStreamID, 1000 + nStreamID, PLAY});
    }
    runUntil("stat 1200");
    EXPECT_EQ(vExpected, m_handler.m_vReports);
    EXPECT_TRUE(takeEvents().empty());
    expectNothingLeft();
}

TEST_F(MIntfEventThreadLoop, StopFlagEndsItInTheMiddleOfABurst)
{
    for (int n = 0; n < 100; ++n)
        writeEvent({MIEVT_DONE, n, 1, 0});
    runUntil("nStreamID = (50)");
    EXPECT_EQ(49u, takeEvents().size());
}

TEST_F(MIntfEventThreadLoop, EndOfABurstIsNoError)
{
    for (int n = 0; n < 40; ++n)
        writeEvent({MIEVT_NULL, n, 1, 0});
    m_newLines.beginHere();
    std::thread thread([this] { m_pmintf->eventThreadFunc(); });
    EXPECT_TRUE(eventPipeIsDrained());
    writeEvent({MIEVT_DONE, 5, 1, 0}); // read after a wait again
    EXPECT_TRUE(eventPipeIsDrained());
    stop();
    thread.join();
    EXPECT_EQ(CLogLines{m_lineStarting} + readLines(5, 1, 0) + CLogLines{m_lineStopping}, m_newLines.get());
}

// Waits are never shorter than said; how much longer they are is the machine's affair.
class MIntfEventThreadWaits : public MIntfEventThreadLoop
{
protected:
    // The times at which the idle passes of a run begin, and before them its start.
    std::vector<Clock::time_point> run(size_t nPasses)
    {
        std::vector<Clock::time_point> vTimes;
        CLineHook hook(m_pLog, [&](const std::string& strLine) {
            if (!contains(strLine, "- starting") && !contains(strLine, "about to open"))
                return;
            vTimes.push_back(Clock::now());
            if (vTimes.size() > nPasses)
                requestStop();
        });
        m_pmintf->eventThreadFunc();
        storeUnlocked(m_pmintf->m_bEventThreadStop, 0);
        return vTimes;
    }
};

TEST_F(MIntfEventThreadWaits, FirstIdlePassComesSoonerThanTheOthers)
{
    disconnect();
    unlink(MI_REQUEST_PIPE);
    bool bFirstIsShorter = false;
    for (int nTry = 0; nTry < 5 && !bFirstIsShorter; ++nTry)
    {
        const std::vector<Clock::time_point> vTimes = run(2);
        ASSERT_EQ(3u, vTimes.size());
        EXPECT_GE(vTimes[1] - vTimes[0], std::chrono::milliseconds(100));
        EXPECT_GE(vTimes[2] - vTimes[1], std::chrono::milliseconds(1000));
        bFirstIsShorter = vTimes[1] - vTimes[0] < std::chrono::milliseconds(1000);
    }
    EXPECT_TRUE(bFirstIsShorter);
}

TEST_F(MIntfEventThreadWaits, OtherIdlePassesComeOneSecondApart)
{
    disconnect();
    unlink(MI_REQUEST_PIPE);
    bool bOneSecond = false;
    for (int nTry = 0; nTry < 3 && !bOneSecond; ++nTry)
    {
        const std::vector<Clock::time_point> vTimes = run(2);
        ASSERT_EQ(3u, vTimes.size());
        bOneSecond = vTimes[2] - vTimes[1] < std::chrono::milliseconds(2000);
    }
    EXPECT_TRUE(bOneSecond);
}

TEST_F(MIntfEventThreadWaits, EventMakesTheNextWaitALongOne)
{
    disconnect();
    unlink(MI_REQUEST_PIPE);
    writeEvent({MIEVT_NULL, 0, 0, 0});
    const std::vector<Clock::time_point> vTimes = run(1);
    ASSERT_EQ(2u, vTimes.size());
    EXPECT_GE(vTimes[1] - vTimes[0], std::chrono::milliseconds(1000));
}

TEST_F(MIntfEventThreadWaits, NoDriverMeansOneTryPerPass)
{
    disconnect();
    unlink(MI_REQUEST_PIPE);
    run(2);
    EXPECT_EQ(2u, m_pLog->count("about to open request pipe"));
    EXPECT_EQ(2u, m_pLog->count("can't open request pipe"));
    EXPECT_EQ(-1, m_pmintf->m_nConnectID);
}
