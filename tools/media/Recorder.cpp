// CRecorder: records a channel into a file, at once or behind a prompt, and ends it properly when interrupted.
#include "media/Recorder.h"

#include "base/Terminal.h"
#include "phrases/AudioFile.h"

#include <algorithm>

namespace
{
constexpr CMilliseconds POLL(200);
constexpr std::chrono::seconds RECORD_MARGIN(10);

// What recordGetStatus says of the reference driver's recordings. From a driver that says something else the
// end is learnt by the time-out.
enum : MCSTATUS
{
    RECORD_ENDED = 2,
    RECORD_FAILED = 3
};
} // namespace

CRecorder::CRecorder(CMediaSession& session, const std::string& strFile, std::chrono::seconds max, bool bJson)
    : m_session(session), m_strFile(strFile), m_max(max), m_bJson(bJson), m_progress(isTerminal() && !bJson)
{
}

// No completion tells the end of such a recording, save the time-out.
int CRecorder::recordAtOnce()
{
    check(m_strFile, m_session.stream().recordToFile(m_strFile.data(), 0, static_cast<unsigned long>(m_max.count()),
                                                     timeout(m_max), 0));
    tellStarted("recording", m_strFile);
    for (;;)
    {
        const auto completion = m_session.waitCompletion(POLL);
        const bool bRuns = updateRecorded();
        if (m_session.interrupts() > 0)
        {
            m_session.closeStream();
            tellRecorded(MCS_CANCELLED);
            return EXIT_CODE_INTERRUPTED;
        }
        if (!bRuns || completion)
            return tellRecorded(completion ? completion->m_mcstatus : MCS_OK);
    }
}

int CRecorder::recordBehind(const CRecordPrompt& prompt)
{
    const CMilliseconds longest = std::max<CMilliseconds>(m_max, durationOfSamples(prompt.m_ulLength));
    check(m_strFile, m_session.stream().recordToFileWithPromptPhrase(
                         prompt.m_ulFileID, prompt.m_ulOffset, prompt.m_ulLength, m_strFile.data(), 0,
                         static_cast<unsigned long>(m_max.count()), timeout(longest), 0));
    tellStarted("playing", prompt.m_strName);
    const Clock::time_point start = Clock::now();
    Clock::time_point giveUp = Clock::time_point::max();
    MCSTATUS mcstatus = MCS_CANCELLED;
    bool bPrompt = true;
    for (;;)
    {
        const auto completion = m_session.waitCompletion(POLL);
        if (completion &&
            (completion->m_reason == CZelMediaStreamCompletionHandler::MCCR_RECORD || completion->m_mcstatus != MCS_OK))
        {
            mcstatus = completion->m_mcstatus;
            bPrompt = bPrompt && completion->m_reason != CZelMediaStreamCompletionHandler::MCCR_RECORD;
            break;
        }
        if (completion && completion->m_reason == CZelMediaStreamCompletionHandler::MCCR_PLAY)
        {
            bPrompt = false;
            tellStarted("recording", m_strFile);
        }
        if (m_session.interrupts() > 0 && !cancelBehind(bPrompt, giveUp))
            break;
        if (bPrompt)
            showPrompt(prompt, start);
        else
            updateRecorded();
    }
    if (bPrompt)
    {
        m_progress.clear();
        if (m_session.interrupts() > 0)
            throw CToolError(EXIT_CODE_INTERRUPTED, "interrupted before the recording began");
        check("the prompt " + prompt.m_strName, mcstatus);
    }
    updateRecorded();
    const int nExitCode = m_session.interrupts() > 0 ? EXIT_CODE_INTERRUPTED : EXIT_CODE_OK;
    tellRecorded(mcstatus);
    return nExitCode;
}

// A recording that was taken from the queue just before starts behind the cancel, so that it takes another one.
bool CRecorder::cancelBehind(bool bPrompt, Clock::time_point& giveUp)
{
    if (giveUp == Clock::time_point::max())
        giveUp = Clock::now() + CMediaSession::CANCEL_LIMIT;
    CZelMediaStream& stream = m_session.stream();
    const MCSTATUS mcstatus = bPrompt ? stream.playCancel() : stream.recordCancel();
    return mcstatus == MCS_OK && m_session.interrupts() < 2 && Clock::now() < giveUp;
}

// Whether the driver still records.
bool CRecorder::updateRecorded()
{
    const MCSTATUS mcstatus = m_session.stream().recordGetStatus();
    if (exitCodeOf(mcstatus) == EXIT_CODE_NO_DRIVER)
        check(m_strFile, mcstatus);
    unsigned long ulMilliSeconds = 0;
    check(m_strFile, m_session.stream().recordGetTimeMilliseconds(&ulMilliSeconds));
    m_recorded = CMilliseconds(ulMilliSeconds);
    if (mcstatus == RECORD_FAILED)
        throw CToolError(EXIT_CODE_FAILED, m_strFile + ": the driver could not write it; its log says why");
    if (mcstatus != RECORD_ENDED)
        m_progress.show("recording", m_recorded, m_max, "");
    return mcstatus != RECORD_ENDED;
}

void CRecorder::showPrompt(const CRecordPrompt& prompt, Clock::time_point start)
{
    m_session.checkDriver();
    m_progress.show(prompt.m_strName, std::chrono::duration_cast<CMilliseconds>(Clock::now() - start),
                    durationOfSamples(prompt.m_ulLength), "");
}

void CRecorder::tellStarted(const char* pszEvent, const std::string& strName) const
{
    if (m_bJson)
        printJson({{"event", pszEvent}, {"name", strName}});
    else if (!isTerminal())
        printLine(pszEvent + (" " + strName));
}

int CRecorder::tellRecorded(MCSTATUS mcstatus)
{
    m_progress.clear();
    if (m_bJson)
        printJson({{"event", "recorded"},
                   {"name", m_strFile},
                   {"status", mcstatus},
                   {"status_name", MCSTATUSToString(mcstatus)},
                   {"recorded_s", std::chrono::duration<double>(m_recorded).count()}});
    else
        printLine("recorded " + m_strFile + ": " + (mcstatus == MCS_OK ? "MCS_OK" : statusText(mcstatus)) + ", " +
                  secondsText(m_recorded) + " s");
    if (m_session.interrupts() == 0)
        check(m_strFile, mcstatus);
    return EXIT_CODE_OK;
}

unsigned long CRecorder::timeout(CMilliseconds longest) const
{
    return static_cast<unsigned long>((std::chrono::ceil<std::chrono::seconds>(longest) + RECORD_MARGIN).count());
}

void CRecorder::check(const std::string& strWhat, MCSTATUS mcstatus) const
{
    if (mcstatus != MCS_OK)
        throw CToolError(exitCodeOf(mcstatus), strWhat + ": " + statusText(mcstatus) + ", " + statusHint(mcstatus));
}
