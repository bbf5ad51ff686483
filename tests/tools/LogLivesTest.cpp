// CCommandLives: what the rarer lines of a log tell of commands, and a log that lacks lines.
#include "SampleLog.h"

#include "log/CommandLives.h"
#include "log/LogFiles.h"
#include "trace/TraceText.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace
{
class CTold : public CLogListener
{
public:
    void onCommand(const CCommandLife& life) override
    {
        const std::string strName = life.m_nCommand == NO_COMMAND ? life.m_strCall : shortCommandName(life.m_nCommand);
        m_vCommands.push_back(strName + " " + std::to_string(life.m_nStream) + " " + outcomeText(life));
    }
    void onNote(const CLogNote& note) override { m_vNotes.push_back(note.m_strText); }

    std::vector<std::string> m_vCommands;
    std::vector<std::string> m_vNotes;
};

// What a log tells that is written through m_log.
class LogLives : public testing::Test
{
protected:
    CTold told()
    {
        m_log.close();
        CTold told;
        CCommandLives lives(told);
        CLineCounts counts;
        readLogs({SAMPLE_LOG}, false, counts, [&](CLogLine& line, std::string_view) { lives.add(line); });
        lives.finish();
        EXPECT_EQ(counts.m_ullForeign, 0U);
        return told;
    }

    // A request as a log without trace class 1 has it.
    void bareRequest(int nStream, const char* pszCommand, bool bQueued, int nStatus = 0)
    {
        m_log.text(LOG_EVENT_REQUEST, nStream, pszCommand);
        m_log.text(LOG_EVENT_ENTERING, nStream);
        m_log.text(bQueued ? LOG_EVENT_QUEUED : LOG_EVENT_ACTIVE);
        if (!bQueued)
            m_log.text(LOG_EVENT_SENDING);
        m_log.text(LOG_EVENT_RESULT, nStream, "MIRSP_STATUS", static_cast<unsigned int>(nStatus));
    }
    void barePlay(int nStream, bool bQueued)
    {
        m_log.line("CZelMediaStreamImpl::playAddFile (0x%08X), file a.wav, startpos 0, timeout 60",
                   CSampleLog::handle(nStream));
        bareRequest(nStream, "MICMD_PLAYFILE", bQueued);
    }
    void complete(int nStream, unsigned int uStatus, unsigned int uReason)
    {
        m_log.text(LOG_EVENT_COMPLETION, CSampleLog::handle(nStream), nStream, uStatus, uReason);
    }

    CSampleLog m_log{SAMPLE_LOG};
};
} // namespace

TEST_F(LogLives, ASilentDriverDropsWhatPlays)
{
    m_log.play(1, "a.wav");
    m_log.text(LOG_EVENT_DRIVER_SILENT);
    m_log.text(LOG_EVENT_DESTROYED, CSampleLog::address(1));
    const CTold all = told();
    EXPECT_THAT(all.m_vCommands, ElementsAre("PLAYFILE 1 dropped: the media driver did not answer"));
    EXPECT_THAT(all.m_vNotes, ElementsAre("the media driver does not answer"));
}

TEST_F(LogLives, ALostDriverIsNotSilentToo)
{
    m_log.play(1, "a.wav");
    m_log.text(LOG_EVENT_DRIVER_LOST);
    m_log.text(LOG_EVENT_DRIVER_SILENT);
    m_log.text(LOG_EVENT_DESTROYED, CSampleLog::address(1));
    const CTold all = told();
    EXPECT_THAT(all.m_vCommands, ElementsAre("PLAYFILE 1 dropped: the media driver was lost"));
    EXPECT_THAT(all.m_vNotes, ElementsAre("the media driver is lost"));
}

TEST_F(LogLives, AlarmsAndLossesAreNotes)
{
    m_log.text(LOG_EVENT_ALARM);
    m_log.text(LOG_EVENT_STREAM_LOST, 5);
    m_log.textOf(LOG_EVENT_ALARM, 1);
    m_log.line("3 lines lost: No space left on device");
    m_log.text(LOG_EVENT_PROCESS_ENDING);
    EXPECT_THAT(told().m_vNotes,
                ElementsAre("alarm: CMIntf::eventThreadFunc: ActiveCommand command timed out", "the stream is lost",
                            "alarm: CMIntf::markStreamInvalid, cannot open/create/read/write pipe",
                            "3 lines lost: No space left on device", "the process ends"));
}

TEST_F(LogLives, ACommandBehindOneThatCouldNotBeSentSaysWhyItWent)
{
    m_log.play(1, "a.wav");
    m_log.text(LOG_EVENT_WITHDRAWN);
    m_log.text(LOG_EVENT_UNLINKED, 1, 1);
    m_log.text(LOG_EVENT_DESTROYED, CSampleLog::address(1));
    EXPECT_THAT(told().m_vCommands, ElementsAre("PLAYFILE 1 dropped: the command before it could not be sent"));
}

TEST_F(LogLives, ACompletionOfTheLibrarysOwnHasNoRequest)
{
    m_log.text(LOG_EVENT_CONSTRUCTED, 0x77U);
    m_log.text(LOG_EVENT_OWN_COMPLETION, 9, 1);
    m_log.text(LOG_EVENT_DESTROYED, 0x77U);
    EXPECT_THAT(told().m_vCommands, ElementsAre("NULL 1 dropped"));
}

TEST_F(LogLives, WithoutLinesOfObjectsCompletionsAndQueuesFitAllTheSame)
{
    barePlay(1, false);
    barePlay(1, true);
    complete(1, 0, 1);
    bareRequest(1, "MICMD_PLAYFILE", false); // the second one comes out of its queue
    complete(1, 0, 1);
    EXPECT_THAT(told().m_vCommands, ElementsAre("PLAYFILE 1 completed MCS_OK", "PLAYFILE 1 completed MCS_OK"));
}

TEST_F(LogLives, WithoutLinesOfObjectsACancelDropsTheQueue)
{
    barePlay(1, false);
    barePlay(1, true);
    m_log.text(LOG_EVENT_CANCEL, 1);
    complete(1, 3, 1);
    EXPECT_THAT(told().m_vCommands, ElementsAre("PLAYFILE 1 dropped: cancelled", "PLAYFILE 1 completed MCS_CANCELLED"));
}

TEST_F(LogLives, WhatBeganBeforeTheLogIsKnownByItsReason)
{
    complete(1, 0, 1);
    complete(2, 46, 2);
    EXPECT_THAT(told().m_vCommands, ElementsAre("play 1 completed MCS_OK", "record 2 completed MCS_TIMEDOUT"));
}

TEST_F(LogLives, APlayInThePlaceOfAnotherEndsThatOne)
{
    barePlay(1, false);
    barePlay(1, false);
    EXPECT_THAT(told().m_vCommands, ElementsAre("PLAYFILE 1 ended", "PLAYFILE 1 still running"));
}

TEST_F(LogLives, ACompletionToNobodyIsOneOfAClosedStream)
{
    barePlay(1, false);
    m_log.text(LOG_EVENT_COMPLETION, 0U, 1, 0U, 1U);
    EXPECT_THAT(told().m_vCommands, ElementsAre("PLAYFILE 1 ended MCS_OK: the stream was closed"));
}

TEST_F(LogLives, ARefusedRequestHasFailed)
{
    bareRequest(1, "MICMD_OPENFILE", false, 34);
    EXPECT_THAT(told().m_vCommands, ElementsAre("OPENFILE 1 failed MCS_REFUSED"));
}

TEST(LogTime, MayEndBehindAnyOfItsNumbers)
{
    const int64_t DAY = logTimeFromString("2026-11-21");
    EXPECT_EQ(logTimeToString(DAY), "2026-11-21 00:00:00.000000");
    EXPECT_EQ(logTimeFromString("2026-11-21 00:01"), DAY + 60000000);
    EXPECT_EQ(logTimeFromString("2026-11-21T00:00:01"), DAY + 1000000);
    EXPECT_EQ(logTimeFromString("2026-11-21 00:00:00.5"), DAY + 500000);
    EXPECT_EQ(logTimeFromString("2026-11-21 00:00:00.000001"), DAY + 1);
}

TEST(LogTime, OtherTextsAreNone)
{
    for (const char* const pszText :
         {"", "2026", "2026-11", "2026-02-30", "2026-11-21 ", "2026-11-21 24:00", "2026-11-21 00:60",
          "2026-11-21 00:00:61", "2026-11-21 00:00:00.", "2026-11-21 00:00:00.1234567", "2026/11/21", "21-11-2026"})
        EXPECT_EQ(logTimeFromString(pszText), NO_TIME) << pszText;
}
