#include "ScriptedPlayer.h"

#include <algorithm>

void CScriptedPlayer::begin(const structMICMD& request, int32_t nStatus, std::chrono::milliseconds length)
{
    m_listRunning.push_back({request, nStatus, CClock::now() + length});
}

bool CScriptedPlayer::isRunning(int32_t nStreamID, bool bRecord) const
{
    return std::any_of(
        m_listRunning.begin(), m_listRunning.end(),
        [=](const CRunning& running) { return running.isOf(nStreamID, bRecord); });
}

void CScriptedPlayer::cancel(const structMICMD& request)
{
    const int32_t CANCELLED = 3;
    for (CRunning& running : m_listRunning)
        if (running.isOf(request.cancel.nStreamID, request.cancel.nCancelType == MICANCEL_RECORD))
        {
            running.nStatus = CANCELLED;
            running.due = CClock::now();
        }
    endWhatIsDue();
}

void CScriptedPlayer::forget(int32_t nStreamID)
{
    m_listRunning.remove_if([=](const CRunning& running) { return running.request.stream.nStreamID == nStreamID; });
}

// What finds no room in the event pipe is told later.
void CScriptedPlayer::endWhatIsDue()
{
    const CClock::time_point now = CClock::now();
    m_listRunning.remove_if([&](const CRunning& running) {
        if (running.due > now)
            return false;
        if (m_onEnd)
            m_onEnd(running.request);
        if (!m_driver.tryEvent(
                {MIEVT_DONE, running.request.stream.nStreamID, running.request.nSequenceNo, running.nStatus}))
            return false;
        if (m_onTold)
            m_onTold(running.request);
        return true;
    });
}
