// Plays a row of files or phrases on a channel, tells how it goes, and ends it properly when interrupted.
#include "media/Player.h"

#include "base/Terminal.h"

namespace
{
constexpr CMilliseconds REDRAW(100);
constexpr CMilliseconds CANCEL_AGAIN(200);
constexpr std::chrono::seconds PLAY_MARGIN(60);

nlohmann::json seconds(std::optional<CMilliseconds> duration)
{
    return duration ? nlohmann::json(std::chrono::duration<double>(*duration).count()) : nlohmann::json();
}
} // namespace

unsigned long playTimeout(const std::optional<std::chrono::seconds>& wanted, std::optional<CMilliseconds> total)
{
    if (wanted)
        return static_cast<unsigned long>(wanted->count());
    return total ? static_cast<unsigned long>((std::chrono::ceil<std::chrono::seconds>(*total) + PLAY_MARGIN).count())
                 : ZELMEDIA_DEFAULT_TIMEOUT;
}

CPlayer::CPlayer(CMediaSession& session, const std::vector<CPlayItem>& vItems, bool bJson)
    : m_session(session), m_vItems(vItems), m_bJson(bJson), m_progress(isTerminal() && !bJson)
{
}

int CPlayer::run()
{
    m_start = Clock::now();
    queueAll();
    waitAll();
    if (wasCancelled())
        return EXIT_CODE_INTERRUPTED;
    if (m_mcstatusNotQueued != MCS_OK)
        failed(m_nQueued, m_mcstatusNotQueued);
    return EXIT_CODE_OK;
}

// One that has failed drops what is queued then, not what is queued after that.
void CPlayer::queueAll()
{
    while (m_nQueued < m_vItems.size() && !wasCancelled())
    {
        m_mcstatusNotQueued = m_vItems[m_nQueued].m_queue(m_session.stream());
        if (m_mcstatusNotQueued != MCS_OK)
            return;
        if (m_nQueued++ == m_nEnded)
            tellStarted();
        while (const auto completion = m_session.waitCompletion(CMilliseconds(0)))
            completed(completion->m_mcstatus);
    }
}

void CPlayer::waitAll()
{
    while (m_nEnded < m_nQueued)
    {
        if (wasCancelled())
            return cancel();
        showProgress();
        if (const auto completion = m_session.waitCompletion(REDRAW))
            completed(completion->m_mcstatus);
        else
            m_session.checkDriver();
    }
}

// A play that was taken from the queue just before starts behind the cancel, so that it takes another one.
void CPlayer::cancel()
{
    const auto end = Clock::now() + CMediaSession::CANCEL_LIMIT;
    const int nInterrupts = m_session.interrupts();
    MCSTATUS mcstatus = MCS_OK;
    while (m_nEnded < m_nQueued && mcstatus == MCS_OK && m_session.interrupts() == nInterrupts && Clock::now() < end)
    {
        if (m_session.stream().playCancel() != MCS_OK)
            return;
        if (const auto completion = m_session.waitCompletion(CANCEL_AGAIN))
            completed(mcstatus = completion->m_mcstatus);
    }
}

void CPlayer::tellStarted()
{
    m_start = Clock::now();
    const CPlayItem& item = m_vItems[m_nEnded];
    if (m_bJson)
        printJson({{"event", "playing"},
                   {"name", item.m_strName},
                   {"number", m_nEnded + 1},
                   {"of", m_vItems.size()},
                   {"total_s", seconds(item.m_total)}});
    else if (!isTerminal())
        printLine("playing " + item.m_strName);
}

void CPlayer::completed(MCSTATUS mcstatus)
{
    const CMilliseconds elapsed = std::chrono::duration_cast<CMilliseconds>(Clock::now() - m_start);
    const CPlayItem& item = m_vItems[m_nEnded];
    m_progress.clear();
    if (m_bJson)
        printJson({{"event", "played"},
                   {"name", item.m_strName},
                   {"number", m_nEnded + 1},
                   {"status", mcstatus},
                   {"status_name", MCSTATUSToString(mcstatus)},
                   {"elapsed_s", seconds(elapsed)}});
    else
        printLine(coloured(mcstatus == MCS_OK ? COLOUR_NONE : COLOUR_YELLOW,
                           "played " + item.m_strName + ": " + (mcstatus == MCS_OK ? "MCS_OK" : statusText(mcstatus)) +
                               ", " + secondsText(elapsed) + " s"));
    if (mcstatus != MCS_OK && !wasCancelled())
        failed(m_nEnded, mcstatus);
    if (++m_nEnded < m_nQueued && !wasCancelled())
        tellStarted();
}

void CPlayer::failed(size_t nItem, MCSTATUS mcstatus)
{
    const size_t nDropped = m_vItems.size() - nItem - 1;
    const std::string strRemark = m_vItems[nItem].m_strRemark;
    throw CToolError(exitCodeOf(mcstatus), m_vItems[nItem].m_strName + ": " + statusText(mcstatus) + ", " +
                                               statusHint(mcstatus) + (strRemark.empty() ? "" : "; " + strRemark) +
                                               (nDropped ? "; not played: " + std::to_string(nDropped) + " more" : ""));
}

void CPlayer::showProgress()
{
    const CPlayItem& item = m_vItems[m_nEnded];
    const auto slash = item.m_strName.rfind('/');
    m_progress.show(slash == std::string::npos ? item.m_strName : item.m_strName.substr(slash + 1),
                    item.m_from + std::chrono::duration_cast<CMilliseconds>(Clock::now() - m_start), item.m_total,
                    m_vItems.size() > 1 ? std::to_string(m_nEnded + 1) + " of " + std::to_string(m_vItems.size()) : "");
}
