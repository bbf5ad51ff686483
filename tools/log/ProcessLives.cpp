// CCommandLives::CProcessLives: calls, requests, queues and results.
#include "log/ProcessLives.h"

#include "MediaProtocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace
{
const size_t MAX_DETAIL = 600; // two names of files

// The commands that an operation of the application leads to.
unsigned int commandsOf(std::string_view strvCall)
{
    const auto calls = logCalls();
    const auto it =
        std::find_if(calls.begin(), calls.end(), [&](const CLogCall& call) { return call.m_strvName == strvCall; });
    return it == calls.end() ? 0 : it->m_uCommands;
}

// A call that ought to have led to this command, and has not.
int unsentCommand(unsigned int uExpected)
{
    for (const int nCommand : {MICMD_PLAYFILE, MICMD_PLAYCLIP, MICMD_RECORDFILE, MICMD_CANCEL})
        if (uExpected & commandBit(nCommand))
            return nCommand;
    return NO_COMMAND;
}
} // namespace

CCommandLives::CProcessLives::CProcessLives(CLogListener& listener, int nProcess, uint64_t& ullLastStreamKey)
    : m_listener(listener), m_nProcess(nProcess), m_ullLastStreamKey(ullLastStreamKey)
{
}

constexpr CCommandLives::CProcessLives::CRules CCommandLives::CProcessLives::rules()
{
    typedef CProcessLives L;
    CRules rules;
    rules[LOG_EVENT_CALL] = {&L::callBegins};
    rules[LOG_EVENT_CALL_RESULT] = {&L::callResult};
    rules[LOG_EVENT_STREAM_ADDED] = {&L::streamAdded};
    rules[LOG_EVENT_STREAM_OPENED] = {&L::streamOpened};
    rules[LOG_EVENT_STREAM_CLOSING] = {&L::streamClosing, nullptr, "the stream was closed"};
    rules[LOG_EVENT_STREAM_CLEARED] = {&L::streamCleared};
    rules[LOG_EVENT_CANCEL] = {&L::cancelled, nullptr, "cancelled"};

    rules[LOG_EVENT_NEW_COMMAND] = {&L::newCommand};
    rules[LOG_EVENT_REQUEST] = {&L::beginRequest, &L::ofRequest};
    rules[LOG_EVENT_ENTERING] = {&L::entering, &L::ofRequest};
    rules[LOG_EVENT_QUEUED] = {nullptr, &L::queued};
    rules[LOG_EVENT_ACTIVE] = {nullptr, &L::becameActive};
    rules[LOG_EVENT_NUMBERED] = {nullptr, &L::numbered};
    rules[LOG_EVENT_SENT_NUMBER] = {nullptr, &L::numbered};
    rules[LOG_EVENT_SENDING] = {nullptr, &L::sending};
    rules[LOG_EVENT_RESPONSE] = {nullptr, &L::answered};
    rules[LOG_EVENT_RESULT] = {nullptr, &L::endRequest};

    rules[LOG_EVENT_CONSTRUCTED] = {&L::constructed};
    rules[LOG_EVENT_DESTROYED] = {&L::destroyed};
    rules[LOG_EVENT_OWN_COMPLETION] = {&L::ownCompletion};
    rules[LOG_EVENT_EVENT] = {&L::readEvent};
    rules[LOG_EVENT_WITHDRAWN] = {&L::withdrawn, nullptr, "the command before it could not be sent"};
    rules[LOG_EVENT_UNLINKED] = {&L::unlinked};
    rules[LOG_EVENT_TIMED_OUT] = {&L::timedOut};
    rules[LOG_EVENT_REPORTING] = {&L::reporting};
    rules[LOG_EVENT_COMPLETION] = {&L::complete};

    rules[LOG_EVENT_PROCESS_STARTED] = {nullptr, nullptr, nullptr, LOG_NOTE_PROCESS_STARTED, "the process starts"};
    rules[LOG_EVENT_PROCESS_ENDING] = {nullptr, nullptr, "the process ended", LOG_NOTE_PROCESS_ENDING,
                                       "the process ends"};
    rules[LOG_EVENT_CONNECTED] = {nullptr, nullptr, nullptr, LOG_NOTE_CONNECTED, "connected to the media driver"};
    rules[LOG_EVENT_DRIVER_LOST] = {&L::driverLost, nullptr, "the media driver was lost", LOG_NOTE_DRIVER_LOST,
                                    "the media driver is lost"};
    rules[LOG_EVENT_DRIVER_SILENT] = {&L::driverSilent};
    rules[LOG_EVENT_STREAM_LOST] = {&L::streamLost};
    rules[LOG_EVENT_ALARM] = {&L::alarm};
    rules[LOG_EVENT_LINES_LOST] = {nullptr, nullptr, nullptr, LOG_NOTE_LINES_LOST};
    return rules;
}

void CCommandLives::CProcessLives::add(CLogLine& line)
{
    static constexpr CRules s_rules = rules();
    const CRule& rule = s_rules[line.m_event];
    CThread& thread = m_mapThreads[line.m_nThread];
    if (rule.m_pHandle)
        (this->*rule.m_pHandle)(thread, line);
    if (const CLife life = rule.m_pStep ? thread.m_current : nullptr)
    {
        line.m_nCommand = life->m_nCommand;
        line.m_nStream = life->m_nStream;
        (this->*rule.m_pStep)(life, thread, line);
    }
    if (rule.m_pszWhy)
        thread.m_pszWhy = rule.m_pszWhy;
    if (rule.m_note)
        note(*rule.m_note, line, NO_STREAM, rule.m_pszNote ? rule.m_pszNote : std::string(line.m_strvText));
}

void CCommandLives::CProcessLives::callBegins(CThread& thread, CLogLine& line)
{
    releaseHeld(thread);
    if (const auto it = m_mapStreamByHandle.find(line.m_uAddress);
        line.m_uAddress != 0 && it != m_mapStreamByHandle.end())
        line.m_nStream = it->second;
    beginCall(thread, line);
}

void CCommandLives::CProcessLives::callResult(CThread& thread, CLogLine& line)
{
    line.m_nStream = thread.m_call.m_nStream;
}

void CCommandLives::CProcessLives::streamAdded(CThread&, CLogLine& line)
{
    m_mapStreamByHandle[line.m_uAddress] = line.m_nStream;
}

void CCommandLives::CProcessLives::streamClosing(CThread& thread, CLogLine& line)
{
    thread.m_nCloseStream = line.m_nStream;
}

void CCommandLives::CProcessLives::streamCleared(CThread&, CLogLine& line)
{
    dropStream(line.m_nStream, "the stream was closed", line.m_llTime, false);
}

void CCommandLives::CProcessLives::cancelled(CThread& thread, CLogLine& line)
{
    thread.m_nCancelStream = line.m_nStream;
    if (!m_bSeesObjects)
        dropStream(line.m_nStream, "cancelled", line.m_llTime, true);
}

void CCommandLives::CProcessLives::newCommand(CThread& thread, CLogLine& line)
{
    m_bSeesObjects = true;
    thread.m_bNew = true;
    thread.m_uNewAddress = line.m_uAddress;
}

void CCommandLives::CProcessLives::entering(CThread& thread, CLogLine& line)
{
    resolveStarting(thread, line.m_bRecordSide);
}

// Its command and stream are all that such a line is for.
void CCommandLives::CProcessLives::ofRequest(const CLife&, CThread&, const CLogLine&) {}

void CCommandLives::CProcessLives::queued(const CLife& life, CThread&, const CLogLine& line)
{
    if (life->m_llQueued == NO_TIME)
        life->m_llQueued = line.m_llTime;
    enqueue(streamOf(life->m_nStream).m_aSides[line.m_bRecordSide].m_queue, life);
}

void CCommandLives::CProcessLives::becameActive(const CLife& life, CThread&, const CLogLine& line)
{
    CLife& active = streamOf(life->m_nStream).m_aSides[line.m_bRecordSide].m_active;
    if (active && active != life)
        finishLife(active, OUTCOME_ENDED, "", line.m_llTime); // the lines of its end are missing
    active = life;
}

void CCommandLives::CProcessLives::numbered(const CLife& life, CThread&, const CLogLine& line)
{
    life->m_uSequence = line.m_uSequence;
    m_mapBySequence[line.m_uSequence] = life;
}

void CCommandLives::CProcessLives::sending(const CLife& life, CThread&, const CLogLine& line)
{
    life->m_llSent = line.m_llTime;
}

void CCommandLives::CProcessLives::answered(const CLife& life, CThread&, const CLogLine& line)
{
    if (line.m_uSequence != 0) // else a late one that was thrown away
        life->m_llAnswered = line.m_llTime;
}

void CCommandLives::CProcessLives::beginCall(CThread& thread, const CLogLine& line)
{
    const unsigned int uExpected = commandsOf(line.m_strvName);
    if (uExpected == commandBit(MICMD_CLOSESTREAM) && (thread.m_call.m_uExpected & uExpected))
        return; // remStream within the destructor
    endCall(thread);
    CCall& call = thread.m_call;
    call.m_strName = line.m_strvName;
    call.m_strDetail = line.m_strvText.substr(0, MAX_DETAIL);
    call.m_nStream = line.m_nStream;
    call.m_llTime = line.m_llTime;
    call.m_uExpected = uExpected;
    call.m_bUsed = false;
}

// Of a play, record or cancel that no request was sent for, this is all that the log tells.
void CCommandLives::CProcessLives::endCall(CThread& thread)
{
    CCall& call = thread.m_call;
    const int nCommand = unsentCommand(call.m_uExpected);
    if (!call.m_bUsed && nCommand != NO_COMMAND)
    {
        CCommandLife life;
        life.m_nProcess = m_nProcess;
        life.m_nCommand = nCommand;
        life.m_strCall = call.m_strName;
        life.m_strDetail = call.m_strDetail;
        attachStream(life, call.m_nStream);
        life.m_llRequested = call.m_llTime;
        life.m_llEnded = call.m_llTime;
        life.m_outcome = OUTCOME_NOT_SENT;
        life.m_pszWhy = nCommand == MICMD_CANCEL ? "nothing was playing"
                                                 : "the stream is not open, or there is no such phrase file";
        m_listener.onCommand(life);
    }
    call = CCall();
}

// A command that was made just now, rather than one that comes out of its queue.
bool CCommandLives::CProcessLives::isNewCommand(const CThread& thread, int nCommand) const
{
    if (m_bSeesObjects)
        return thread.m_bNew;
    return !isPlayOrRecordCommand(nCommand) || (thread.m_call.m_uExpected & commandBit(nCommand)) != 0;
}

void CCommandLives::CProcessLives::beginRequest(CThread& thread, CLogLine& line)
{
    releaseHeld(thread);
    thread.m_current.reset();
    thread.m_nStarting = NO_COMMAND;
    if (!isNewCommand(thread, line.m_nCommand))
    {
        thread.m_nStarting = line.m_nCommand;
        thread.m_nStartingStream = line.m_nStream;
        return;
    }
    const CLife life = newLife(line);
    if (thread.m_bNew)
        m_mapByAddress[thread.m_uNewAddress] = life;
    thread.m_bNew = false;
    thread.m_current = life;
    life->m_nCommand = line.m_nCommand;
    int nStream = line.m_nStream == 0 ? NO_STREAM : line.m_nStream;
    if (line.m_nCommand == MICMD_CANCEL)
        nStream = std::exchange(thread.m_nCancelStream, NO_STREAM);
    else if (line.m_nCommand == MICMD_CLOSESTREAM)
        nStream = std::exchange(thread.m_nCloseStream, NO_STREAM);
    else if (isPlayOrRecordCommand(line.m_nCommand))
        nStream = line.m_nStream;
    attachStream(*life, nStream);
    useCall(thread, *life);
}

void CCommandLives::CProcessLives::useCall(CThread& thread, CCommandLife& life)
{
    CCall& call = thread.m_call;
    const unsigned int uBit = commandBit(life.m_nCommand);
    if (!(call.m_uExpected & uBit))
        return;
    if (!call.m_bUsed)
        life.m_llRequested = call.m_llTime;
    call.m_bUsed = true;
    call.m_uExpected &= ~uBit;
    life.m_strCall = call.m_strName;
    life.m_strDetail = call.m_strDetail;
}

// Finds the queued command that is about to start.
void CCommandLives::CProcessLives::resolveStarting(CThread& thread, bool bRecordSide)
{
    const int nCommand = std::exchange(thread.m_nStarting, NO_COMMAND);
    if (nCommand == NO_COMMAND)
        return;
    std::deque<CLife>& queue = streamOf(thread.m_nStartingStream).m_aSides[bRecordSide].m_queue;
    while (!queue.empty())
    {
        const CLife life = queue.front();
        queue.pop_front();
        life->m_bInQueue = false;
        if (life->m_bFinished || life->m_nCommand != nCommand)
            continue;
        life->m_bFromQueue = true;
        thread.m_current = life;
        return;
    }
}

void CCommandLives::CProcessLives::enqueue(std::deque<CLife>& queue, const CLife& life)
{
    while (!queue.empty() && queue.front()->m_bFinished)
        queue.pop_front(); // dropped since
    if (!std::exchange(life->m_bInQueue, true))
        queue.push_back(life);
}

void CCommandLives::CProcessLives::endRequest(const CLife& life, CThread& thread, const CLogLine& line)
{
    thread.m_current.reset();
    const bool bQueued = line.m_nStatus == 0 && life->m_llSent == NO_TIME;
    if (life->m_bFinished || bQueued)
        return;
    life->m_bHasStatus = line.m_nStatus != 0 || !life->isPlayOrRecord(); // those have just begun
    life->m_nStatus = line.m_nStatus;
    if (line.m_nCommand == MICMD_CLOSESTREAM)
        closeStream(life->m_nStream, line.m_llTime);
    if (line.m_nStatus != 0 && life->m_bFromQueue)
        thread.m_reporting = life; // the application is told next
    else if (line.m_nStatus != 0)
        finishLife(life, OUTCOME_FAILED, "", line.m_llTime);
    else if (line.m_nCommand == MICMD_OPENSTREAM || (line.m_nCommand == MICMD_CANCEL && life->m_nStream == NO_STREAM))
        thread.m_held = life;
    else if (!life->isPlayOrRecord())
        finishLife(life, OUTCOME_ANSWERED, "", line.m_llTime);
}

void CCommandLives::CProcessLives::releaseHeld(CThread& thread)
{
    if (const CLife life = std::exchange(thread.m_held, nullptr))
        finishLife(life, life->m_nStatus == 0 ? OUTCOME_ANSWERED : OUTCOME_FAILED, "", life->m_llAnswered);
}

void CCommandLives::CProcessLives::streamOpened(CThread& thread, CLogLine& line)
{
    if (line.m_nStream >= 0)
    {
        closeStream(line.m_nStream, line.m_llTime); // the line of its close is missing, or the driver was lost
        CStream& stream = streamOf(line.m_nStream);
        stream.m_llBegan = line.m_llTime;
        stream.m_strName = fmt::format("{}, leg {}", line.m_strvText.substr(0, MAX_DETAIL), line.m_uLeg);
    }
    if (thread.m_held)
        attachStream(*thread.m_held, line.m_nStream);
    releaseHeld(thread);
}
