// A time of day that jumps under a process at work, and files from the far side of 2038.
#include "Machine.h"

#include <atomic>
#include <ctime>
#include <sys/syscall.h>

namespace
{
std::atomic<long long> s_llAhead{0}; // s, of the time of day

#ifdef SYS_clock_gettime64
const long CLOCK_CALL = sizeof(time_t) == 8 ? SYS_clock_gettime64 : SYS_clock_gettime;
const long TOUCH_CALL = SYS_utimensat_time64;
#else
const long CLOCK_CALL = SYS_clock_gettime;
const long TOUCH_CALL = SYS_utimensat;
#endif
} // namespace

// In place of the C library's.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* pNow) noexcept
{
    const int nResult = static_cast<int>(syscall(CLOCK_CALL, clock, pNow));
    if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)
        pNow->tv_sec = static_cast<time_t>(pNow->tv_sec + s_llAhead);
    return nResult;
}

namespace
{
const long long HOUR = 3600;
const long long YEAR = 365 * 24 * HOUR;

long long timeOfDay()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

// Seconds that the stamp of the last line of the library's log differs from the time of day.
long long stampIsOff()
{
    const std::string strLog = contentOf(defaultLog());
    EXPECT_EQ('\n', strLog.back());
    const size_t nLine = strLog.rfind('\n', strLog.size() - 2) + 1;
    tm parts = {};
    const char* const pszRest = strptime(strLog.c_str() + nLine, "%Y-%m-%d %H:%M:%S", &parts);
    EXPECT_TRUE(pszRest && *pszRest == '.') << strLog.substr(nLine);
    parts.tm_isdst = -1;
    return std::abs(static_cast<long long>(mktime(&parts)) - timeOfDay());
}

// With the log that the library opens by itself.
class TimeOfDay : public testing::Test
{
protected:
    ~TimeOfDay() override
    {
        for (CZelMediaStream* const pStream : m_vStreams)
            m_services.closeMediaStream(pStream);
        s_llAhead = 0;
    }

    CZelMediaStream* open()
    {
        CZelMediaStream* pStream = nullptr;
        EXPECT_TRUE(waitUntil([&] { return m_services.openMediaStream(&pStream, "call", 1) == MCS_OK; }));
        if (pStream)
            m_vStreams.push_back(pStream);
        return pStream;
    }

    static int play(CZelMediaStream* pStream, unsigned long ulTimeout)
    {
        return pStream->playAddFile(text("/p/1.wav"), 0, ulTimeout, 0, 0, 0);
    }

    CScriptedDriver m_driver;
    CCompletions m_completions;
    CZelMediaServices m_services{&m_completions};
    std::vector<CZelMediaStream*> m_vStreams;
};

struct CJump
{
    const char* pszName;
    long long llAhead;
};

void PrintTo(const CJump& jump, std::ostream* pStream)
{
    *pStream << jump.pszName;
}

class TimeOfDayThatJumps : public TimeOfDay, public testing::WithParamInterface<CJump>
{
};
} // namespace

TEST_P(TimeOfDayThatJumps, ChangesTheStampsOfTheLogAndNothingElse)
{
    if (sizeof(time_t) == 4 && GetParam().llAhead > 20 * YEAR)
        GTEST_SKIP() << "the times of this build end in 2038";
    CZelMediaStream* const pOverdue = open();
    CZelMediaStream* const pStream = open();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(MCS_OK, play(pOverdue, 2));
    EXPECT_EQ(MCS_OK, play(pStream, 300));
    EXPECT_GT(60, stampIsOff());
    const size_t nConnected = contentOf(defaultLog()).size();

    s_llAhead = GetParam().llAhead;
    EXPECT_EQ(MCS_OK, play(pStream, 300));
    EXPECT_GT(60, stampIsOff());
    EXPECT_EQ(0u, m_completions.count());
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 1));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE, 2));
    ASSERT_TRUE(m_completions.waitCount(3));
    EXPECT_LE(std::chrono::seconds(2), std::chrono::steady_clock::now() - start);
    const std::vector<CCompletion> vAll = m_completions.all();
    EXPECT_EQ((CCompletion{pStream, MCS_OK, CHandler::MCCR_PLAY}), vAll[0]);
    EXPECT_EQ((CCompletion{pStream, MCS_OK, CHandler::MCCR_PLAY}), vAll[1]);
    EXPECT_EQ((CCompletion{pOverdue, MCS_TIMEDOUT, CHandler::MCCR_PLAY}), vAll[2]);

    s_llAhead = 0;
    EXPECT_EQ(MCS_OK, play(pStream, 300));
    EXPECT_GT(60, stampIsOff());
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
    EXPECT_EQ(0u, m_driver.count(MICMD_PING));
    EXPECT_EQ(std::string::npos, contentOf(defaultLog()).find("(Error)", nConnected));
}

INSTANTIATE_TEST_SUITE_P(To, TimeOfDayThatJumps,
                         testing::Values(CJump{"AnHourAhead", HOUR}, CJump{"AnHourBack", -HOUR},
                                         CJump{"TenYearsAhead", 10 * YEAR}, CJump{"FiftyYearsBack", -50 * YEAR},
                                         CJump{"SeventyYearsAhead", 70 * YEAR}),
                         [](const auto& jump) { return jump.param.pszName; });

// On a machine whose clock is wrong, or simply later.
TEST(FileOfLaterThan2038, IsAsGoodAPipeAndLogFileAsAnyOther)
{
    if (sizeof(time_t) == 4)
        GTEST_SKIP() << "the times of this build end in 2038";
    const auto touch = [](const char* pszPath) {
        const long long anTimes[4] = {timeOfDay() + 70 * YEAR, 0, timeOfDay() + 70 * YEAR, 0};
        EXPECT_EQ(0, syscall(TOUCH_CALL, AT_FDCWD, pszPath, anTimes, 0)) << strerror(errno);
    };
    for (int n = 1; n <= 2; ++n)
    {
        OrvLogLib::CLogFile log("Media", "/tmp/later.log", false, false, false);
        EXPECT_LT(0, log.TraceString(1, OrvLogLib::LogLib_Normal, "line %d", n));
        touch("/tmp/later.log");
    }
    CScriptedDriver driver;
    touch(MI_REQUEST_PIPE);
    CCompletions completions;
    CZelMediaServices services(&completions);
    EXPECT_TRUE(driver.waitCount(MICMD_CONNECT, 1));
}
