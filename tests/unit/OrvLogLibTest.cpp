// Tests of what an application sees of the log: masks, line shape, alarms, overriding, settings.
#include "LogFileSupport.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace logtest;
using namespace OrvLogLib;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{
constexpr int SYSLOG_ALERT = 1;
constexpr int SYSLOG_INFO = 6;
constexpr int SYSLOG_DAEMON = 3 << 3;

class CTakingLogFile : public CLogFile
{
public:
    CTakingLogFile() : CLogFile("Taking", nullptr, false, false, false) {}

    int LogStringArgListX(LogLib_Priority priority, const char* pszFormat, const char* pszSource,
                          va_list arguments) override
    {
        char szText[256];
        vsnprintf(szText, sizeof(szText), pszFormat, arguments);
        m_vLines.push_back(std::to_string(priority) + (pszSource ? pszSource : " ") + szText);
        errno = EIO;
        return 77;
    }

    long ReportEventToWIN32Log(long nEventID, unsigned short nStrings, unsigned long, const char** ppszStrings,
                               void*) override
    {
        m_vAlarms.push_back(std::to_string(nEventID) + " " + (nStrings > 0 ? ppszStrings[0] : ""));
        return 5;
    }

    std::vector<std::string> m_vLines;
    std::vector<std::string> m_vAlarms;
};

class OrvLogLibTest : public LogFileTest
{
};
} // namespace

TEST_F(OrvLogLibTest, LineHasDateTimeProcessThreadPriorityAndText)
{
    CLogFile log("Media", "Media", false, false, false);
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    const int nWritten = log.TraceString(TRACE, LogLib_High, "id %d, %s", 7, "name");

    const std::vector<std::string> vLines = linesOf(path("Media.log"));
    ASSERT_THAT(vLines, SizeIs(1));
    EXPECT_EQ(nWritten, static_cast<int>(vLines[0].size() + 1));
    const std::string strShape = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6} p" +
                                 std::to_string(getpid()) + " t" + std::to_string(gettid()) + " 64 id 7, name";
    EXPECT_THAT(vLines[0], testing::MatchesRegex(strShape));
}

TEST_F(OrvLogLibTest, TraceClassThatIsOffIsNotFormatted)
{
    CTakingLogFile log;
    m_settings.nTraceMask = 8;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    EXPECT_EQ(log.traceMask(), 8u);
    EXPECT_EQ(log.TraceString(1, LogLib_Normal, "off"), 0);
    EXPECT_EQ(log.TraceString(9, LogLib_Normal, "on"), 77);
    EXPECT_THAT(log.m_vLines, ElementsAre("2 on"));
}

TEST_F(OrvLogLibTest, ArgumentListOfATraceClassThatIsOffIsNotFormatted)
{
    CLogFile log("Media", path("Media").c_str(), false, false, false);
    log.setTraceMask(~TRACE);
    va_list none = {};
    EXPECT_EQ(log.TraceStringArgList(TRACE, LogLib_Normal, "%n is not looked at", none), 0);
    EXPECT_FALSE(exists(path("Media.log")));
}

TEST_F(OrvLogLibTest, AllTenTraceClassesAreOnInANewLogFile)
{
    CTakingLogFile log;
    for (unsigned long ulMask = 1; ulMask <= 512; ulMask *= 2)
        EXPECT_EQ(log.TraceString(ulMask, LogLib_Low, "line"), 77) << ulMask;
    EXPECT_EQ(log.TraceString(1024, LogLib_Low, "line"), 0);
    EXPECT_EQ(log.TraceString(0, LogLib_Low, "line"), 0);
}

TEST_F(OrvLogLibTest, SubclassTakesLinesAndAlarms)
{
    auto pTaking = std::make_unique<CTakingLogFile>();
    CLogFile* pLog = pTaking.get();
    const char* strings[] = {"driver is gone"};
    errno = ENOENT;
    EXPECT_EQ(pLog->TraceString(TRACE, LogLib_Low, "line %d", 1), 77);
    EXPECT_EQ(errno, ENOENT) << "an override's errno must not reach the caller";
    EXPECT_EQ(pLog->ReportEventToWIN32Log(3, 1, 0, strings, nullptr), 5);
    EXPECT_THAT(pTaking->m_vLines, ElementsAre("4 line 1"));
    EXPECT_THAT(pTaking->m_vAlarms, ElementsAre("3 driver is gone"));
    EXPECT_THAT(syslogCalls(), IsEmpty());
}

TEST_F(OrvLogLibTest, SourceStandsBeforeTheText)
{
    CLogFile log("Media", "Media", false, false, false);
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    EXPECT_GT(logFrom(log, "CMIntf", "text %d", 5), 0);
    EXPECT_GT(logFrom(log, nullptr, "alone"), 0);
    const std::vector<std::string> vLines = linesOf(path("Media.log"));
    ASSERT_THAT(vLines, SizeIs(2));
    EXPECT_EQ(textOf(vLines[0]), "CMIntf: text 5");
    EXPECT_EQ(textOf(vLines[1]), "alone");
}

TEST_F(OrvLogLibTest, ControlCharactersOfTheTextBecomeBlanks)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.pszLinePrefix = "a\nb ";
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    log.TraceString(TRACE, LogLib_Normal, "%s", "one\ntwo\r\tthree\x1b\x7f \xc3\xa9\n");
    const std::vector<std::string> vLines = linesOf(path("Media.log"));
    ASSERT_THAT(vLines, SizeIs(1));
    EXPECT_EQ(textOf(vLines[0]), "a b one two  three   \xc3\xa9 ");
}

TEST_F(OrvLogLibTest, TextsOfEveryLengthAreWhole)
{
    CLogFile log("Media", "Media", false, false, false);
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    const int lengths[] = {0, 1, 1022, 1023, 1024, 1025, 9999, 10000};
    for (int nLength : lengths)
        log.TraceString(TRACE, LogLib_Normal, "%s", std::string(static_cast<size_t>(nLength), 'x').c_str());
    const std::vector<std::string> vLines = linesOf(path("Media.log"));
    ASSERT_THAT(vLines, SizeIs(std::size(lengths)));
    for (size_t n = 0; n < vLines.size(); ++n)
        EXPECT_EQ(textOf(vLines[n]), std::string(static_cast<size_t>(lengths[n]), 'x'));
}

TEST_F(OrvLogLibTest, LongerTextIsCutAtTheMaximumLineLength)
{
    CLogFile log("Media", "Media", false, false, false);
    for (const unsigned int uMax : {10000u, 5000u, 10u, 0u})
    {
        m_settings.nMaxLineLength = uMax;
        registryOf(&log, m_settings);
        log.TraceString(TRACE, LogLib_Normal, "%s", std::string(20000, 'x').c_str());
    }
    const std::vector<std::string> vLines = linesOf(path("Media.log"));
    ASSERT_THAT(vLines, SizeIs(4));
    EXPECT_THAT(textOf(vLines[0]), SizeIs(10000));
    EXPECT_THAT(textOf(vLines[1]), SizeIs(5000));
    EXPECT_THAT(textOf(vLines[2]), SizeIs(10));
    EXPECT_THAT(textOf(vLines[3]), SizeIs(20000));
}

TEST_F(OrvLogLibTest, ErrnoIsPrintedAndKept)
{
    CLogFile log("Media", "Media", false, false, true);
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    errno = ENOENT;
    logFrom(log, nullptr, "%m");
    EXPECT_EQ(errno, ENOENT);
    logFrom(log, nullptr, "%2000s %m", "");
    EXPECT_EQ(errno, ENOENT);
    log.ReportEventToWIN32Log(1, 0, 0, nullptr, nullptr);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(rename(path("Media.log").c_str(), path("away").c_str()), 0);
    ASSERT_EQ(mkdir(path("Media.log").c_str(), 0700), 0);
    registryOf(&log, m_settings);
    errno = ENOENT;
    EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "refused"), -1);
    EXPECT_EQ(errno, ENOENT);

    const std::vector<std::string> vLines = linesOf(path("away"));
    ASSERT_THAT(vLines, SizeIs(3));
    EXPECT_EQ(textOf(vLines[0]), "No such file or directory");
    EXPECT_EQ(textOf(vLines[1]), std::string(2001, ' ') + "No such file or directory");
}

TEST_F(OrvLogLibTest, NullTextsAreEmptyTexts)
{
    CLogFile log(nullptr, nullptr, false, true, true);
    const CLogFileRegistry registry(&log, nullptr, nullptr, nullptr, nullptr, 0, 1, 100, 0, 3, 1023, 2, 1023, 0, 0, 0,
                                    1, 0, 1, 0);
    EXPECT_STREQ(registry.name(), "");
    EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "text"), 0) << "no file name: no file, no loss";
    EXPECT_EQ(logFrom(log, nullptr, nullptr), 0);
    ASSERT_THAT(syslogCalls(), SizeIs(2));
    EXPECT_EQ(syslogCalls()[0].strText, ": text");
    EXPECT_EQ(syslogCalls()[1].strText, ": ");
}

TEST_F(OrvLogLibTest, AlarmGoesToTheSyslogAndIntoTheFile)
{
    CLogFile log("Media", "Media", false, false, true);
    m_settings.nFileMask = 0; // alarms do not ask for masks
    m_settings.nTraceMask = 0;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    const char* strings[] = {"first", nullptr, "third\n"};
    const unsigned int uEvent = 0xC1030190;
    EXPECT_EQ(log.ReportEventToWIN32Log(static_cast<long>(uEvent), 3, 0, strings, nullptr), 1);
    char data[5] = {};
    EXPECT_EQ(log.ReportEventToWIN32Log(7, 4, sizeof(data), nullptr, data), 1);

    const std::vector<CSyslogCall> vCalls = syslogCalls();
    ASSERT_THAT(vCalls, SizeIs(2));
    EXPECT_EQ(vCalls[0].nPriority, SYSLOG_ALERT | SYSLOG_DAEMON);
    EXPECT_EQ(vCalls[0].strText, "Media: event 0xC1030190: first  third ");
    EXPECT_EQ(vCalls[1].strText, "Media: event 0x00000007: (5 bytes of data)");
    const std::vector<std::string> vLines = linesOf(path("Media.log"));
    ASSERT_THAT(vLines, SizeIs(2));
    EXPECT_THAT(vLines[0], testing::EndsWith(" 64 event 0xC1030190: first  third "));
}

TEST_F(OrvLogLibTest, AlarmsStayOutOfTheSyslogWhenEitherSwitchIsOff)
{
    CLogFile quiet("Media", "Quiet", false, false, false);
    const CLogFileRegistry registry1 = registryOf(&quiet, m_settings);
    EXPECT_EQ(quiet.ReportEventToWIN32Log(1, 0, 0, nullptr, nullptr), 1);

    CLogFile log("Media", "Media", false, false, true);
    m_settings.nSyslogAlarms = 0;
    const CLogFileRegistry registry2 = registryOf(&log, m_settings);
    EXPECT_EQ(log.ReportEventToWIN32Log(1, 0, 0, nullptr, nullptr), 1);
    m_settings.nFileEnabled = 0;
    const CLogFileRegistry registry3 = registryOf(&log, m_settings);
    EXPECT_EQ(log.ReportEventToWIN32Log(1, 0, 0, nullptr, nullptr), 0) << "it reached nobody";

    EXPECT_THAT(syslogCalls(), IsEmpty());
    EXPECT_THAT(linesOf(path("Quiet.log")), SizeIs(1));
    EXPECT_THAT(linesOf(path("Media.log")), SizeIs(1));
}

TEST_F(OrvLogLibTest, MasksSendPrioritiesToFileSyslogAndStandardError)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nFileMask = LogLib_Normal;
    m_settings.nSyslogMask = LogLib_High;
    m_settings.nStderrMask = LogLib_Low;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    {
        const int nFile = open(path("stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        const CStderrInto redirected(nFile);
        close(nFile);
        EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "normal"), 0);
        EXPECT_EQ(log.TraceString(TRACE, LogLib_Low, "low"), 0);
        EXPECT_EQ(log.TraceString(TRACE, LogLib_High, "high"), 0);
    }
    EXPECT_THAT(linesOf(path("Media.log")), ElementsAre(testing::EndsWith(" 2 normal")));
    EXPECT_THAT(linesOf(path("stderr")), ElementsAre(testing::EndsWith(" 4 low")));
    ASSERT_THAT(syslogCalls(), SizeIs(1));
    EXPECT_EQ(syslogCalls()[0].nPriority, SYSLOG_INFO | SYSLOG_DAEMON);
    EXPECT_EQ(syslogCalls()[0].strText, "Media: high");
}

TEST_F(OrvLogLibTest, BrokenStandardErrorRaisesNoSignal)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nStderrMask = LogLib_Normal;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    const auto before = signal(SIGPIPE, SIG_DFL); // whoever started this program may have it ignored
    {
        const CStderrInto redirected(ends[1]);
        close(ends[1]);
        EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "line"), 0);
    }
    sigset_t pending;
    sigpending(&pending);
    signal(SIGPIPE, before);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    EXPECT_THAT(linesOf(path("Media.log")), SizeIs(1));
}

namespace
{
// Standard error that nobody reads for now, so that who writes there waits.
class CFullStandardError
{
public:
    CFullStandardError()
    {
        EXPECT_EQ(pipe2(m_anEnds, O_CLOEXEC | O_NONBLOCK), 0);
        while (write(m_anEnds[1], "", 1) > 0)
        {
        }
        fcntl(m_anEnds[1], F_SETFL, 0);
        m_redirected.emplace(m_anEnds[1]);
    }
    ~CFullStandardError()
    {
        m_redirected.reset();
        close(m_anEnds[0]);
        close(m_anEnds[1]);
    }
    std::string readAll() const
    {
        std::string strAll;
        char szBytes[4096];
        for (ssize_t nRead; (nRead = read(m_anEnds[0], szBytes, sizeof(szBytes))) > 0;)
            strAll.append(szBytes, static_cast<size_t>(nRead));
        return strAll;
    }
    static bool waits(pid_t nThread)
    {
        std::string strID;
        std::string strName;
        std::string strState;
        std::ifstream("/proc/self/task/" + std::to_string(nThread) + "/stat") >> strID >> strName >> strState;
        return strState == "S";
    }

private:
    int m_anEnds[2];
    std::optional<CStderrInto> m_redirected;
};
} // namespace

TEST_F(OrvLogLibTest, SignalDoesNotKeepALineFromStandardError)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nStderrMask = LogLib_Normal;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    struct sigaction action = {};
    static std::atomic<int> s_nSignals;
    s_nSignals = 0;
    action.sa_handler = [](int) { ++s_nSignals; };
    sigaction(SIGUSR1, &action, nullptr);
    const CFullStandardError full;
    std::atomic<pid_t> nThread{0};
    std::thread writer([&] {
        nThread = gettid();
        EXPECT_GT(log.TraceString(TRACE, LogLib_Normal, "in spite of a signal"), 0);
    });
    while (nThread == 0 || !CFullStandardError::waits(nThread))
        std::this_thread::yield();
    pthread_kill(writer.native_handle(), SIGUSR1);
    while (s_nSignals == 0 || !CFullStandardError::waits(nThread))
        std::this_thread::yield();
    std::string strSeen = full.readAll();
    writer.join();
    strSeen += full.readAll();
    EXPECT_THAT(strSeen, testing::EndsWith("in spite of a signal\n"));
}

TEST_F(OrvLogLibTest, ProcessEndsWhileAThreadIsStuckInItsLog)
{
    const int nSignal = inChild([&] {
        alarm(30);
        CLogFile& log = *new CLogFile("Media", "Media", false, false, false); // nobody destroys it
        m_settings.nStderrMask = LogLib_Normal;
        const CLogFileRegistry registry = registryOf(&log, m_settings);
        const CFullStandardError full;
        std::atomic<pid_t> nThread{0};
        std::thread stuck([&] {
            nThread = gettid();
            log.TraceString(TRACE, LogLib_Normal, "nobody reads this");
        });
        while (nThread == 0 || !CFullStandardError::waits(nThread))
            std::this_thread::yield();
        exit(0);
    });
    EXPECT_EQ(nSignal, 0);
}

TEST_F(OrvLogLibTest, DisabledFileIsNeverMade)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nFileEnabled = 0;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    EXPECT_EQ(log.TraceString(TRACE, LogLib_Normal, "line"), 0);
    EXPECT_FALSE(exists(path("Media.log")));
}

TEST_F(OrvLogLibTest, TextSettingsNameFolderExtensionAndLinePrefix)
{
    CLogFile log("Media", "Media", false, false, false);
    ASSERT_EQ(mkdir(path("sub").c_str(), 0700), 0);
    const std::string strFolder = path("sub");
    m_settings.pszFolder = strFolder.c_str();
    m_settings.pszExtension = ".txt";
    m_settings.pszLinePrefix = "[media] ";
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    EXPECT_STREQ(registry.name(), "Media");
    log.TraceString(TRACE, LogLib_Normal, "line");
    const std::vector<std::string> vLines = linesOf(path("sub/Media.txt"));
    ASSERT_THAT(vLines, SizeIs(1));
    EXPECT_EQ(textOf(vLines[0]), "[media] line");
}

TEST_F(OrvLogLibTest, TimesShowMillisecondsWhenMicrosecondsAreOff)
{
    CLogFile log("Media", "Media", false, false, false);
    m_settings.nMicroseconds = 0;
    const CLogFileRegistry registry = registryOf(&log, m_settings);
    log.TraceString(TRACE, LogLib_Normal, "line");
    EXPECT_THAT(linesOf(path("Media.log")),
                ElementsAre(testing::MatchesRegex(".{10} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} p.*")));
}

TEST_F(OrvLogLibTest, TimesAreLocalOrUtc)
{
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    CLogFile log("Media", "Media", false, false, false);
    for (const unsigned int uUtc : {0u, 1u})
    {
        m_settings.nUtc = uUtc;
        registryOf(&log, m_settings);
        log.TraceString(TRACE, LogLib_Normal, "line");
    }
    const time_t tNow = time(nullptr);
    unsetenv("TZ");
    tzset();
    const std::vector<std::string> vLines = linesOf(path("Media.log"));
    ASSERT_THAT(vLines, SizeIs(2));
    time_t shown[2];
    for (int n = 0; n < 2; ++n)
    {
        tm parts = {};
        ASSERT_NE(strptime(vLines[static_cast<size_t>(n)].c_str(), "%Y-%m-%d %H:%M:%S", &parts), nullptr);
        shown[n] = timegm(&parts);
    }
    EXPECT_NEAR(static_cast<double>(shown[0] - tNow), 5.5 * 3600, 60);
    EXPECT_NEAR(static_cast<double>(shown[1] - tNow), 0, 60);
}

TEST_F(OrvLogLibTest, DefaultsAreTheNumbersThatTheLibraryRegisters)
{
    const CLogSettings settings;
    const unsigned int numbers[] = {settings.nStartFresh,         settings.nFileEnabled,  settings.nMaxFileMegabytes,
                                    settings.nRetryMilliseconds,  settings.nRotatedFiles, settings.nTraceMask,
                                    settings.nSyslogMask,         settings.nFileMask,     settings.nStderrMask,
                                    settings.nMaxLineLength,      settings.nSyncEachLine, settings.nSyslogAlarms,
                                    settings.nReopenMilliseconds, settings.nMicroseconds, settings.nUtc};
    EXPECT_THAT(numbers, ElementsAre(0, 1, 100, 1000, 3, 1023, 0, 1023, 0, 10000, 0, 1, 40000, 1, 0));
}

TEST_F(OrvLogLibTest, NegativeNumbersCountAsZeroAndMasksBitByBit)
{
    CLogFile log("Media", "Media", false, false, false);
    const CLogFileRegistry registry(&log, "Media", m_settings.pszFolder, nullptr, nullptr, -1, 1, -1, -1, -1, -1, 0, -1,
                                    0, -1, -1, -1, -1, -1, -1);
    EXPECT_EQ(log.traceMask(), 0xFFFFFFFFul);
    EXPECT_GT(log.TraceString(1024, LogLib_Normal, "%s", std::string(20000, 'x').c_str()), 20000);
    EXPECT_EQ(syncCalls(), 0);
}

TEST_F(OrvLogLibTest, RegistryAndLogFileMayBeDeletedInAnyOrder)
{
    auto* pLog = new CLogFile("Media", "Media", false, false, false);
    auto* pRegistry = new CLogFileRegistry(registryOf(pLog, m_settings));
    delete pLog;
    EXPECT_STREQ(pRegistry->name(), "Media");
    delete pRegistry;

    pLog = new CLogFile("Media", "Media", false, false, false);
    delete new CLogFileRegistry(registryOf(pLog, m_settings));
    EXPECT_GT(pLog->TraceString(TRACE, LogLib_Normal, "line"), 0) << "the settings stay in force";
    delete pLog;
    EXPECT_THAT(linesOf(path("Media.log")), SizeIs(1));
}

TEST_F(OrvLogLibTest, RegistryWithoutLogFileIsHarmless)
{
    EXPECT_STREQ(registryOf(nullptr, m_settings).name(), "Media");
}
