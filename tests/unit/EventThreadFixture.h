// CMIntfTest with what the tests of the event thread's passes share.
#ifndef EVENT_THREAD_FIXTURE_H
#define EVENT_THREAD_FIXTURE_H

#include "ExpectedLines.h"
#include "MIntfFixture.h"
#include "ZelMediaStreamImpl.h"

#include <functional>
#include <memory>
#include <vector>

class CEventThreadTest : public CMIntfTest
{
protected:
    typedef CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON Reason;
    typedef std::vector<CHandlerRecorder::CReport> CReports;
    static constexpr Reason PLAY = CZelMediaStreamCompletionHandler::MCCR_PLAY;
    static constexpr Reason RECORD = CZelMediaStreamCompletionHandler::MCCR_RECORD;
    static constexpr Reason OTHER = CZelMediaStreamCompletionHandler::MCCR_OTHER;

    // Sent with m_handler: active, or queued behind the active one.
    CMIntf::CCommand* play(int nStreamID, int bDone = 1)
    {
        return sendCommand(nStreamID, MICMD_PLAYFILE, 300, &m_handler, bDone);
    }
    CMIntf::CCommand* record(int nStreamID, int bDone = 1)
    {
        return sendCommand(nStreamID, MICMD_RECORDFILE, 300, &m_handler, bDone);
    }

    void done(int nStreamID, uint32_t nSequenceID, MCSTATUS mcstatus)
    {
        m_pmintf->doneEventPass({MIEVT_DONE, nStreamID, nSequenceID, mcstatus});
    }

    // A stream object that is registered for the id, as if it had been opened.
    CZelMediaStreamImpl* addStream(int nStreamID)
    {
        m_vStreams.push_back(std::make_unique<CZelMediaStreamImpl>());
        CZelMediaStreamImpl* const pstream = m_vStreams.back().get();
        pstream->m_bInitialized = 1;
        m_pmintf->m_mapStreamByStreamID[nStreamID] = pstream;
        return pstream;
    }

    void expectNothingLeft() const
    {
        EXPECT_EQ(0, commandsAlive());
        EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDPlay.empty());
        EXPECT_TRUE(m_pmintf->m_mapActiveCommandByStreamIDRecord.empty());
        EXPECT_TRUE(m_pmintf->m_mmapActiveCommandByTimeout.empty());
    }

    static CLogLines readLines(int nStreamID, uint32_t nSequenceID, MCSTATUS mcstatus)
    {
        return {infoLine(text("CMIntf::eventThreadFunc, read event, nSequenceID = (%d), nStreamID = (%d), evt "
                              "MIEVT_DONE, stat %d\n",
                              static_cast<int>(nSequenceID), nStreamID, mcstatus))};
    }

    static CLogLines matchedLines(const CMIntf::CCommand* pcommand)
    {
        const int nSequenceNo = static_cast<int>(pcommand->m_cmd.nSequenceNo);
        return CLogLines{infoLine(text("801(Info) CMIntf::eventThreadFunc:: pcommandCompleted is set for all active "
                                       "cmd, cmd seq %d, done seq %d : pcommandCompleted=0x%x",
                                       nSequenceNo, nSequenceNo, addressForLog(pcommand))),
                         infoLine("(Info) CMIntf::eventThreadFunc:: calling remActiveCommand")} +
               removalLines(pcommand->m_nStreamID, pcommand->m_cmd.nSequenceNo, pcommand, nullptr);
    }

    static CLogLines reportedLines(int nStreamID, int nSequenceNo)
    {
        return {infoLine(text(" (Info) CMIntf::eventThreadFunc before OnCMIntfCompletion,m_pcomplHandler ,sid = %d, "
                              "nSequenceID = %d",
                              nStreamID, nSequenceNo)),
                infoLine(text(" (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion ,sid = %d, nSequenceID = %d",
                              nStreamID, nSequenceNo))};
    }

    const CLogLine m_lineFatal = errorLine("test124 (Error) CMIntf::eventThreadFunc, driverFatalError, setting "
                                           "mcstatus = MCS_INVALIDHANDLE");
    CHandlerRecorder m_handler;
    CNewLines m_newLines{m_pLog};

private:
    std::vector<std::unique_ptr<CZelMediaStreamImpl>> m_vStreams;
};

// Does something at each completion, and keeps it.
class CCallingHandler : public CHandlerRecorder
{
public:
    explicit CCallingHandler(std::function<void()> onCompletion) : m_onCompletion(std::move(onCompletion)) {}

    void OnCMIntfCompletion(int nStreamID, MCSTATUS mcstatus,
                            CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON reason) override
    {
        CHandlerRecorder::OnCMIntfCompletion(nStreamID, mcstatus, reason);
        m_onCompletion();
    }

private:
    const std::function<void()> m_onCompletion;
};

#endif
