// Signals without end for every thread of the application, with handlers that do not restart calls.
//
// ZELMEDIA_RUNS: how many calls each thread makes.
#include "Machine.h"

#include <atomic>
#include <csignal>
#include <pthread.h>
#include <sys/time.h>

namespace
{
const int THREADS = 4;

std::atomic<long> s_nSignals{0};

// Interrupts the threads that put themselves down, one after the other, for ever.
class CStorm
{
public:
    CStorm()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++s_nSignals; };
        sigaction(SIGUSR1, &action, nullptr);
        m_thread = std::thread([this] {
            while (!m_bStop)
            {
                {
                    const std::lock_guard hold(m_mutex);
                    for (const pthread_t thread : m_vThreads)
                        pthread_kill(thread, SIGUSR1);
                }
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
        });
    }
    ~CStorm()
    {
        m_bStop = true;
        m_thread.join();
    }

    void join()
    {
        change([this] { m_vThreads.push_back(pthread_self()); });
    }
    void leave()
    {
        change([this] { std::erase(m_vThreads, pthread_self()); });
    }

private:
    void change(const std::function<void()>& how)
    {
        const std::lock_guard hold(m_mutex);
        how();
    }

    std::atomic<bool> m_bStop{false};
    std::mutex m_mutex;
    std::vector<pthread_t> m_vThreads;
    std::thread m_thread;
};

// Runs an operation in several threads at a time, each with its number, in a storm.
void runInAStorm(const std::function<void(int)>& operation)
{
    CStorm storm;
    std::vector<std::thread> vThreads;
    for (int nThread = 0; nThread < THREADS; ++nThread)
        vThreads.emplace_back([&, nThread] {
            storm.join();
            operation(nThread);
            storm.leave();
        });
    for (std::thread& thread : vThreads)
        thread.join();
    EXPECT_LT(0, s_nSignals);
    testing::Test::RecordProperty("signals", static_cast<int>(s_nSignals));
}

class SignalStormInEveryThread : public CSystemTest
{
protected:
    // Everything that an application does with a call. Each play ends at once.
    void call(const std::string& strCallID)
    {
        CZelMediaStream* pStream = nullptr;
        unsigned long ulFileID = 0;
        unsigned long ulMilliSeconds = 0;
        ASSERT_EQ(MCS_OK, m_pServices->openMediaStream(&pStream, strCallID, 1));
        const size_t nBefore = completionsOf(m_completions, pStream);
        EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/p/a.ul"), &ulFileID));
        EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
        EXPECT_EQ(MCS_OK, play(pStream, "/p/2.wav"));
        EXPECT_EQ(MCS_OK, pStream->playAddPhrase(ulFileID, 0, 8000, 60, 0, 0));
        EXPECT_TRUE(waitUntil([&] { return completionsOf(m_completions, pStream) == nBefore + 3; }));
        EXPECT_EQ(MCS_OK, record(pStream, "/p/r.wav"));
        EXPECT_EQ(MCS_OK, pStream->recordGetTimeMilliseconds(&ulMilliSeconds));
        EXPECT_EQ(1234u, ulMilliSeconds);
        EXPECT_EQ(MCS_OK, pStream->playCancel());
        EXPECT_EQ(MCS_OK, m_pServices->closePhraseFile(ulFileID));
        m_pServices->closeMediaStream(pStream);
    }
};
} // namespace

TEST_F(SignalStormInEveryThread, DisturbsNoExchangeAndNoCompletion)
{
    for (const MICMD micmd : {MICMD_PLAYFILE, MICMD_PLAYCLIP})
    {
        m_driver.onCommand(
            micmd,
            [this](const structMICMD& request) {
                m_driver.accept(request);
                m_driver.done(request);
            });
    }
    const int nCalls = setting("ZELMEDIA_RUNS", 10);
    runInAStorm([&](int nThread) {
        for (int nCall = 0; nCall < nCalls; ++nCall)
            call("call-" + std::to_string(nThread) + "-" + std::to_string(nCall));
    });
    EXPECT_EQ(static_cast<size_t>(3 * THREADS * nCalls), m_completions.count());
    for (const CCompletion& completion : m_completions.all())
        EXPECT_EQ(MCS_OK, completion.mcstatus);
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
    EXPECT_EQ(0u, m_pLog->count("(Error)"));
    EXPECT_TRUE(waitCommandsAlive(0));
}

TEST_F(SignalStormInEveryThread, LosesAndMixesNoLineOfTheLog)
{
    const int LINES = 10000; // so that some are collected
    const std::string strPath = "/tmp/storm.log";
    {
        OrvLogLib::CLogFile log("Storm", strPath.c_str(), false, false, false);
        runInAStorm([&](int nThread) {
            for (int nLine = 0; nLine < LINES; ++nLine)
                EXPECT_LT(0, log.TraceString(1, OrvLogLib::LogLib_Normal, "thread %d line %d.", nThread, nLine));
        });
    }
    std::vector<int> vNext(THREADS, 0);
    std::ifstream file(strPath);
    for (std::string strLine; std::getline(file, strLine);)
    {
        const size_t nText = strLine.find("thread ");
        ASSERT_NE(std::string::npos, nText) << strLine;
        const int nThread = std::stoi(strLine.substr(nText + 7));
        ASSERT_EQ("thread " + std::to_string(nThread) + " line " + std::to_string(vNext.at(nThread)++) + ".",
                  strLine.substr(nText));
    }
    EXPECT_EQ(std::vector<int>(THREADS, LINES), vNext);
}

namespace
{
std::atomic<pid_t> s_nEventThread{0};
std::atomic<long> s_nOnEventThread{0};
thread_local volatile long t_nSignals = 0;

void countSignal(int)
{
    ++s_nSignals;
    t_nSignals = t_nSignals + 1;
    if (gettid() == s_nEventThread)
        ++s_nOnEventThread;
}

// Interrupts this process, in whatever thread, a thousand times a second.
class CTimerStorm
{
public:
    explicit CTimerStorm(bool bRestart)
    {
        struct sigaction action = {};
        action.sa_handler = countSignal;
        action.sa_flags = bRestart ? SA_RESTART : 0;
        sigaction(SIGALRM, &action, nullptr);
        set(1000);
    }
    ~CTimerStorm()
    {
        set(0);
        signal(SIGALRM, SIG_IGN); // a last one may be on its way
    }

private:
    static void set(int nMicroseconds)
    {
        const itimerval timer = {{0, nMicroseconds}, {0, nMicroseconds}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
};

class SignalStorm : public CSystemTest, public testing::WithParamInterface<bool>
{
protected:
    SignalStorm() { s_nEventThread = eventThread(); }
};

class Signals : public CSystemTest
{
};
} // namespace

TEST_P(SignalStorm, DoesNotBreakOffAnExchangeThatIsAnsweredLate)
{
    CZelMediaStream* const pStream = open();
    for (const MICMD micmd : {MICMD_PLAYFILE, MICMD_RECORDGETTIME})
    {
        m_driver.onCommand(
            micmd,
            [this](const structMICMD& request) {
                const long nBefore = s_nSignals;
                EXPECT_TRUE(waitUntil([&] { return s_nSignals > nBefore + 100; }));
                m_driver.accept(request);
            });
    }
    const CTimerStorm storm(GetParam());
    const long nBefore = t_nSignals;
    for (size_t n = 0; n < 3; ++n)
    {
        EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
        m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, n));
        ASSERT_TRUE(m_completions.waitCount(n + 1));
    }
    EXPECT_LT(nBefore + 10, t_nSignals) << "no signal reached the waiting thread";
    unsigned long ulMilliSeconds = 0;
    EXPECT_EQ(MCS_OK, pStream->recordGetTimeMilliseconds(&ulMilliSeconds));
    EXPECT_EQ(1234u, ulMilliSeconds);
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
    EXPECT_EQ(0, s_nOnEventThread);
}

TEST_P(SignalStorm, DoesNotKeepTheEventThreadFromReconnectingAndTimingOut)
{
    CZelMediaStream* const pStream = open();
    const CTimerStorm storm(GetParam());
    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav", 0));
    ASSERT_TRUE(m_completions.waitCount(1));
    loseDriver();
    m_driver.start();
    ASSERT_TRUE(waitConnected(2));
    EXPECT_EQ(MCS_OK, tryOpen());
    EXPECT_LT(100, s_nSignals);
    EXPECT_EQ(0, s_nOnEventThread);
    EXPECT_EQ(0u, m_pLog->count("(Error) CMIntf::eventThreadFunc - error"));
}

INSTANTIATE_TEST_SUITE_P(Restart, SignalStorm, testing::Bool(),
                         [](const auto& how) { return how.param ? "WithRestart" : "WithoutRestart"; });

TEST_F(Signals, AreAllBlockedInTheEventThread)
{
    const pid_t nThread = eventThread();
    ASSERT_NE(0, nThread);
    const uint64_t ullBlocked = std::stoull(taskLine(nThread, "status", "SigBlk:"), nullptr, 16);
    for (int nSignal = 1; nSignal <= 64; ++nSignal)
    {
        const bool bOfTheThreadLibrary = nSignal == 32 || nSignal == 33;
        if (nSignal != SIGKILL && nSignal != SIGSTOP && !bOfTheThreadLibrary)
            EXPECT_TRUE(ullBlocked >> (nSignal - 1) & 1) << nSignal;
    }
}

TEST_F(Signals, OfABrokenPipeAreIgnored)
{
    loseDriver();
    struct sigaction action = {};
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(SIG_IGN, action.sa_handler);
}
