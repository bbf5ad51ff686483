#include "Ledger.h"
#include "LedgerTypes.h"

#include <utility>

namespace
{
using EOperation = CLedger::EOperation;

const int FIRST_TAG = 1000;

bool isFatal(int nStatus)
{
    return nStatus >= MCS_PIPECREATE && nStatus <= MCS_PIPEWRITE;
}

// What a queued command may be reported with that could not be sent when its turn came.
bool isSendFailure(MCSTATUS mcstatus)
{
    return mcstatus == MCS_NORESPONSE || mcstatus == MCS_REFUSED || mcstatus == MCS_PIPEREAD ||
           mcstatus == MCS_PIPEWRITE || mcstatus == MCS_NOTCONNECTED;
}
} // namespace

CLedger::CLedger() = default;
CLedger::~CLedger() = default;

CLedger::CThread& CLedger::thisThread()
{
    static thread_local CThread t_thread;
    return t_thread;
}

CLedger::CCall::CCall(CLedger& ledger, EOperation eOperation, CZelMediaStream* pStream, bool bStep, int nTag)
    : m_ledger(ledger), m_eOperation(eOperation), m_pStream(pStream), m_bStep(bStep), m_nTag(nTag),
      m_pOuter(thisThread().pCall), m_pMade(std::make_unique<CMade>())
{
    CThread& thread = thisThread();
    thread.pCall = this;
    if (!thread.bInHandler)
        thread.bPipeFailed = false;
    std::lock_guard hold(ledger.m_mutex);
    const auto it = ledger.m_mapStreams.find(pStream);
    if (eOperation == EOperation::Close)
    {
        // Another stream may have the address as soon as it is free.
        it->second->bOpen = false;
        ledger.m_mapStreams.erase(it);
        ledger.m_changed.notify_all();
    }
    else if (eOperation != EOperation::Play)
    {
        it->second->bStepsReported = true;
    }
}

CLedger::CCall::~CCall()
{
    thisThread().pCall = m_pOuter;
}

// The status tells whether the last command that the call made was accepted.
MCSTATUS CLedger::CCall::returned(MCSTATUS mcstatus)
{
    std::lock_guard hold(m_ledger.m_mutex);
    for (const CCommandPtr& pCommand : m_pMade->vCommands)
    {
        const bool bAccepted = mcstatus == MCS_OK || pCommand != m_pMade->vCommands.back();
        ++(bAccepted ? m_ledger.m_totals.nAccepted : m_ledger.m_totals.nRefused);
        pCommand->bAccepted = bAccepted;
        if (bAccepted && pCommand->bRefused)
            m_ledger.complain(*pCommand, "accepted, but destroyed at once");
        if (!bAccepted && !pCommand->bRefused)
            m_ledger.complain(*pCommand, "refused with " + std::to_string(mcstatus) + ", but taken");
    }
    return mcstatus;
}

void CLedger::opened(CZelMediaStream* pStream)
{
    std::lock_guard hold(m_mutex);
    auto pNew = std::make_shared<CStream>();
    pNew->pStream = pStream;
    if (!m_mapStreams.emplace(pStream, std::move(pNew)).second)
        complain("a stream was opened twice");
}

void CLedger::closeAtNextCompletion(CZelMediaStream* pStream)
{
    std::lock_guard hold(m_mutex);
    m_mapStreams.at(pStream)->bCloseAtCompletion = true;
}

bool CLedger::isOpen(CZelMediaStream* pStream) const
{
    std::lock_guard hold(m_mutex);
    return m_mapStreams.count(pStream) != 0;
}

bool CLedger::waitIdle(CZelMediaStream* pStream, std::chrono::milliseconds limit) const
{
    std::unique_lock hold(m_mutex);
    return m_changed.wait_for(hold, limit, [&] {
        const auto it = m_mapStreams.find(pStream);
        return it == m_mapStreams.end() || (it->second->bOpen && it->second->nReportable == 0);
    });
}

bool CLedger::takeBack(CZelMediaStream* pStream)
{
    std::lock_guard hold(m_mutex);
    const auto it = m_mapStreams.find(pStream);
    if (it == m_mapStreams.end() || !it->second->bOpen)
        return false;
    it->second->bCloseAtCompletion = false;
    return true;
}

bool CLedger::completionBegins(CZelMediaStream* pStream, MCSTATUS mcstatus, CHandler::MCCOMPLETION_REASON reason)
{
    CThread& thread = thisThread();
    std::lock_guard hold(m_mutex);
    if (thread.bTold)
        complain("a completion without a command of its own, status " + std::to_string(thread.mcstatusTold));
    thread.bInHandler = true;
    thread.pTold = nullptr;
    thread.mcstatusTold = mcstatus;
    thread.reasonTold = reason;
    const auto it = m_mapStreams.find(pStream);
    if (it == m_mapStreams.end() || !it->second->bOpen)
    {
        complain("a completion for a stream that is closed, status " + std::to_string(mcstatus));
        return false;
    }
    thread.pTold = it->second;
    if (!it->second->bCloseAtCompletion)
        return false;
    it->second->bOpen = false;
    return true;
}

// The library destroys the command next: that tells which one it was.
void CLedger::completionEnds()
{
    CThread& thread = thisThread();
    thread.bInHandler = false;
    thread.bTold = true;
}

CLedger::CCommandPtr CLedger::make(CStream& stream, uint32_t nAddress, int nStreamID)
{
    auto pCommand = std::make_shared<CCommand>();
    pCommand->pStream = m_mapStreams.at(stream.pStream);
    pCommand->nStreamID = nStreamID;
    if (!m_mapCommands.emplace(nAddress, pCommand).second)
        complain("a command was made where one is that was not destroyed");
    return pCommand;
}

void CLedger::recordMade(uint32_t nAddress, int nStreamID)
{
    CCall* const pCall = thisThread().pCall;
    if (!pCall || nStreamID == 0 || pCall->m_eOperation == EOperation::Close)
        return;
    std::lock_guard hold(m_mutex);
    CStream& stream = *m_mapStreams.at(pCall->m_pStream);
    const CCommandPtr pCommand = make(stream, nAddress, nStreamID);
    pCommand->bPlain = pCall->m_eOperation == EOperation::Record;
    pCommand->bActive = pCommand->bPlain;
    pCommand->bStep = pCall->m_bStep;
    pCommand->nTag = pCall->m_nTag;
    if (pCommand->bPlain || (pCall->m_eOperation == EOperation::RecordWithPrompt && !pCall->m_pMade->vCommands.empty()))
        pCommand->reason = CHandler::MCCR_RECORD;
    if (!pCommand->bPlain)
        ++stream.nReportable;
    pCall->m_pMade->vCommands.push_back(pCommand);
}

void CLedger::recordActive(uint32_t nAddress)
{
    CThread& thread = thisThread();
    std::lock_guard hold(m_mutex);
    if (std::exchange(thread.bInSetDone, false) && thread.pCall)
    {
        CStream& stream = *m_mapStreams.at(thread.pCall->m_pStream);
        const CCommandPtr pCommand = make(stream, nAddress, 0);
        pCommand->reason = CHandler::MCCR_OTHER;
        ++stream.nReportable;
        ++m_totals.nOfLibrary;
    }
    const auto it = m_mapCommands.find(nAddress);
    if (it == m_mapCommands.end())
        return;
    it->second->bActive = true;
    if (it->second->nStreamID != 0)
        thread.pGoingOut = it->second;
}

// The request of a command that becomes active is the next one that its thread writes.
void CLedger::requestGoesOut(unsigned long nSequenceNo, int nStreamID)
{
    thisThread().nRequestNo = nSequenceNo;
    const CCommandPtr pCommand = std::exchange(thisThread().pGoingOut, nullptr);
    std::lock_guard hold(m_mutex);
    if (pCommand && pCommand->nStreamID == nStreamID)
        pCommand->nSequenceNo = nSequenceNo;
}

// 0: there were too many answers to other requests.
void CLedger::answerTaken(unsigned long nSequenceNo)
{
    if (nSequenceNo != 0 && nSequenceNo != thisThread().nRequestNo)
        violation("request " + std::to_string(thisThread().nRequestNo) + " got the answer to request " +
                  std::to_string(nSequenceNo));
}

void CLedger::recordDestroyed(uint32_t nAddress)
{
    CThread& thread = thisThread();
    std::lock_guard hold(m_mutex);
    const auto it = m_mapCommands.find(nAddress);
    if (it == m_mapCommands.end())
        return;
    const CCommandPtr pCommand = it->second;
    m_mapCommands.erase(it);
    pCommand->bEnded = true;
    if (!pCommand->bPlain)
        --pCommand->pStream->nReportable;
    if (pCommand->pLostBy && (pCommand->pLostBy != &thread || !thread.bPipeFailed))
        complain(*pCommand, "still there after the loss of the pipes had emptied the queues");
    if (thread.bTold)
        completed(*pCommand, thread);
    else
        endedUntold(*pCommand, thread);
    m_changed.notify_all();
}

// The one way to end for what was reported: to the right stream, with the right reason and status.
void CLedger::completed(CCommand& command, CThread& thread)
{
    thread.bTold = false;
    const MCSTATUS mcstatus = thread.mcstatusTold;
    ++m_totals.nCompleted;
    ++m_totals.anCompletedWith[mcstatus > 0 && mcstatus < CTotals::STATUSES ? static_cast<size_t>(mcstatus) : 0];
    command.bCompleted = true;
    const std::string strStatus = "completed with " + std::to_string(mcstatus);
    if (thread.pTold != command.pStream)
        complain(command, strStatus + " for another stream");
    if (thread.reasonTold != command.reason)
        complain(command, strStatus + " and the reason " + std::to_string(thread.reasonTold));
    // The driver's own words; or, of the next one of a queue, why it could not be sent.
    const bool bOfEvent = thread.bEvent && mcstatus == thread.nEventStatus && !isFatal(mcstatus);
    const bool bNotSent = thread.bEvent && thread.nEventStatus == MCS_OK && isSendFailure(mcstatus);
    if (!bOfEvent && !bNotSent)
        complain(command, strStatus + ", which nobody said");
    if (bOfEvent)
        mustBeOfEvent(command, thread);
    if (mcstatus >= FIRST_TAG && mcstatus != command.nTag)
        complain(command, strStatus + ", which is the status of another");
    if (mcstatus == MCS_OK && command.bStep && !command.pStream->bStepsReported)
        complain(command, "a step that ended well was reported");
    if (mcstatus == MCS_OK && thread.bMustFail)
        complain(command, "what was queued behind it is gone, but it ended well");
    thread.bMustFail = false;
}

// The ways to end without a completion.
void CLedger::endedUntold(CCommand& command, CThread& thread)
{
    const CCall* const pCall = thread.pCall;
    const bool bOwnCall = pCall && !pCall->m_pMade->vCommands.empty();
    const bool bOfEvent = thread.bEvent && command.nStreamID == thread.nEventStream;
    if (bOwnCall && pCall->m_pMade->vCommands.back().get() == &command)
        command.bRefused = true;
    else if (!command.pStream->bOpen)
        ++m_totals.nClosed;
    else if (bOfEvent && isFatal(thread.nEventStatus) && !command.bToBeTold)
    {
        ++m_totals.nLost;
        if (!command.bPlain)
            mustBeOfEvent(command, thread);
    }
    else if (thread.bPipeFailed && !command.bActive)
        ++m_totals.nDropped;
    else if (bOfEvent && thread.nEventStatus != MCS_OK && !command.bActive)
        ++m_totals.nBehind;
    else if (bOfEvent && thread.nEventStatus == MCS_OK && command.bActive && command.bStep)
    {
        ++m_totals.nStepsDone;
        mustBeOfEvent(command, thread);
    }
    else if (bOfEvent && !command.bActive && !pCall)
    {
        ++m_totals.nBehind;
        thread.bMustFail = true;
    }
    else if (pCall && pCall->m_pStream == command.pStream->pStream && !command.bActive &&
             (pCall->m_eOperation == EOperation::Cancel || pCall->m_eOperation == EOperation::RecordWithPrompt ||
              pCall->m_eOperation == EOperation::Record))
        ++m_totals.nCancelled;
    else
        complain(command, command.bToBeTold ? "not told of a request that was given up" : "ended without a completion");
}

// Active ones end with the event that has their number. The library's own have none that is known.
void CLedger::mustBeOfEvent(const CCommand& command, const CThread& thread)
{
    if (command.bActive && command.nSequenceNo != 0 && command.nSequenceNo != thread.nEventSequenceNo)
        complain(command, "its number is " + std::to_string(command.nSequenceNo) +
                              ", but the event that ended it had " + std::to_string(thread.nEventSequenceNo));
}

void CLedger::eventRead(int nStreamID, unsigned long nSequenceNo, int nStatus)
{
    CThread& thread = thisThread();
    if (thread.bMustFail)
        violation("a queue was dropped behind a command that did not fail");
    thread.bMustFail = false;
    thread.bPipeFailed = false;
    thread.bEvent = true;
    thread.nEventStream = nStreamID;
    thread.nEventSequenceNo = nSequenceNo;
    thread.nEventStatus = nStatus;
    std::lock_guard hold(m_mutex);
    m_nStreamAdvancing = nStatus == MCS_OK ? nStreamID : 0;
}

void CLedger::pipeLost(bool bWrite)
{
    thisThread().bPipeFailed = true;
    std::lock_guard hold(m_mutex);
    if (bWrite)
        m_lostAt = CClock::now();
    for (const auto& [nAddress, pCommand] : m_mapCommands)
    {
        // All that play are told of a request that was given up, before anything else can end them untold.
        pCommand->bToBeTold |= !bWrite && pCommand->bActive && !pCommand->bPlain;
        // What is queued is gone when the thread has let go of the lock.
        if (pCommand->bAccepted && !pCommand->bActive && pCommand->nStreamID != m_nStreamAdvancing)
            pCommand->pLostBy = &thisThread();
    }
}

void CLedger::connected()
{
    std::lock_guard hold(m_mutex);
    ++m_nConnections;
    m_connectedAt = CClock::now();
    m_changed.notify_all();
}

bool CLedger::waitConnected(size_t nTimes, std::chrono::milliseconds limit) const
{
    std::unique_lock hold(m_mutex);
    return m_changed.wait_for(hold, limit, [&] { return m_nConnections >= nTimes; });
}

size_t CLedger::connections() const
{
    std::lock_guard hold(m_mutex);
    return m_nConnections;
}

CLedger::CClock::time_point CLedger::connectedAt() const
{
    std::lock_guard hold(m_mutex);
    return m_connectedAt;
}

CLedger::CClock::time_point CLedger::lostAt() const
{
    std::lock_guard hold(m_mutex);
    return m_lostAt;
}

void CLedger::CTotals::add(const CTotals& other)
{
    const auto members = {&CTotals::nAccepted, &CTotals::nRefused,  &CTotals::nCompleted, &CTotals::nStepsDone,
                          &CTotals::nLost,     &CTotals::nDropped,  &CTotals::nBehind,    &CTotals::nCancelled,
                          &CTotals::nClosed,   &CTotals::nOfLibrary};
    for (const auto pMember : members)
        this->*pMember += other.*pMember;
    for (size_t nStatus = 0; nStatus < anCompletedWith.size(); ++nStatus)
        anCompletedWith[nStatus] += other.anCompletedWith[nStatus];
}

bool CLedger::CTotals::isEven() const
{
    return nAccepted + nOfLibrary == nCompleted + nStepsDone + nLost + nDropped + nBehind + nCancelled + nClosed;
}

CLedger::CTotals CLedger::totals() const
{
    std::lock_guard hold(m_mutex);
    return m_totals;
}

void CLedger::violation(const std::string& strText)
{
    std::lock_guard hold(m_mutex);
    complain(strText);
}

std::vector<std::string> CLedger::violations() const
{
    std::lock_guard hold(m_mutex);
    return m_vViolations;
}

std::string CLedger::describe(CZelMediaStream* pStream) const
{
    std::lock_guard hold(m_mutex);
    std::string strText;
    for (const auto& [nAddress, pCommand] : m_mapCommands)
    {
        if (!pStream || pCommand->pStream->pStream == pStream)
            strText += " {stream id " + std::to_string(pCommand->nStreamID) + ", number " +
                       std::to_string(pCommand->nSequenceNo) + ", reason " + std::to_string(pCommand->reason) +
                       (pCommand->bPlain ? ", plain" : "") + (pCommand->bActive ? ", active}" : ", queued}");
    }
    return strText;
}

void CLedger::complain(const std::string& strText)
{
    const size_t MAX_VIOLATIONS = 50;
    if (m_vViolations.size() < MAX_VIOLATIONS)
        m_vViolations.push_back(strText);
}

void CLedger::complain(const CCommand& command, const std::string& strText)
{
    complain("stream id " + std::to_string(command.nStreamID) + ", reason " + std::to_string(command.reason) +
             (command.bActive ? ", active: " : ", queued: ") + strText);
}
