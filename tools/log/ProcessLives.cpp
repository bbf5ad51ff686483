// CCommandLives::CProcessLives: calls, requests, queues and results.
#include "log/ProcessLives.h"

#include "MediaProtocol.h"

#include <utility>

namespace
{
const size_t MAX_DETAIL = 600; // two names of files

constexpr unsigned int bit(int nCommand)
{
    return nCommand == NO_COMMAND ? 0 : 1U << nCommand;
}

// The commands that an operation of the application leads to.
unsigned int commandsOf(std::string_view strvCall)
{
    static const std::pair<std::string_view, unsigned int> aCalls[] = {
        {"playAddFile", bit(MICMD_PLAYFILE)},
        {"playAddPhrase", bit(MICMD_PLAYCLIP)},
        {"recordToFile", bit(MICMD_RECORDFILE)},
        {"recordToFileWithPromptPhrase", bit(MICMD_PLAYCLIP) | bit(MICMD_RECORDFILE)},
        {"playCancel", bit(MICMD_CANCEL)},
        {"recordCancel", bit(MICMD_CANCEL)},
        {"initialize", bit(MICMD_OPENSTREAM)},
        {"~CZelMediaStreamImpl", bit(MICMD_CLOSESTREAM)},
        {"remStream", bit(MICMD_CLOSESTREAM)},
        {"openPhraseFile", bit(MICMD_OPENFILE)},
        {"closePhraseFile", bit(MICMD_CLOSEFILE)},
        {"recordGetTimeMilliseconds", bit(MICMD_RECORDGETTIME)},
        {"recordGetStatus", bit(MICMD_RECORDGETSTATUS)},
        {"dump", bit(MICMD_DUMP)}};
    for (const auto& [strvName, uCommands] : aCalls)
        if (strvCall == strvName)
            return uCommands;
    return 0;
}

// A call that ought to have led to this command, and has not.
int unsentCommand(unsigned int uExpected)
{
    for (const int nCommand : {MICMD_PLAYFILE, MICMD_PLAYCLIP, MICMD_RECORDFILE, MICMD_CANCEL})
        if (uExpected & bit(nCommand))
            return nCommand;
    return NO_COMMAND;
}
} // namespace

CCommandLives::CProcessLives::CProcessLives(CLogListener& listener, int nProcess, uint64_t& ullLastStreamKey)
    : m_listener(listener), m_nProcess(nProcess), m_ullLastStreamKey(ullLastStreamKey)
{
}

void CCommandLives::CProcessLives::add(CLogLine& line)
{
    CThread& thread = m_mapThreads[line.m_nThread];
    switch (line.m_event)
    {
    case LOG_EVENT_OTHER: break;
    case LOG_EVENT_CALL:
    case LOG_EVENT_CALL_RESULT:
    case LOG_EVENT_STREAM_ADDED:
    case LOG_EVENT_STREAM_OPENED:
    case LOG_EVENT_STREAM_CLOSING:
    case LOG_EVENT_STREAM_CLEARED:
    case LOG_EVENT_CANCEL: addCallLine(thread, line); break;
    case LOG_EVENT_CONSTRUCTED:
    case LOG_EVENT_DESTROYED:
    case LOG_EVENT_OWN_COMPLETION:
    case LOG_EVENT_EVENT:
    case LOG_EVENT_WITHDRAWN:
    case LOG_EVENT_UNLINKED:
    case LOG_EVENT_TIMED_OUT:
    case LOG_EVENT_REPORTING:
    case LOG_EVENT_COMPLETION: addEventLine(thread, line); break;
    case LOG_EVENT_PROCESS_STARTED:
    case LOG_EVENT_PROCESS_ENDING:
    case LOG_EVENT_CONNECTED:
    case LOG_EVENT_CONNECTION:
    case LOG_EVENT_DRIVER_LOST:
    case LOG_EVENT_DRIVER_SILENT:
    case LOG_EVENT_STREAM_LOST:
    case LOG_EVENT_ALARM:
    case LOG_EVENT_LINES_LOST: addProcessLine(thread, line); break;
    default: addRequestLine(thread, line); break;
    }
}

void CCommandLives::CProcessLives::addCallLine(CThread& thread, CLogLine& line)
{
    switch (line.m_event)
    {
    case LOG_EVENT_CALL:
        releaseHeld(thread);
        if (const auto it = m_mapStreamByHandle.find(line.m_uAddress);
            line.m_uAddress != 0 && it != m_mapStreamByHandle.end())
            line.m_nStream = it->second;
        beginCall(thread, line);
        break;
    case LOG_EVENT_CALL_RESULT: line.m_nStream = thread.m_call.m_nStream; break;
    case LOG_EVENT_STREAM_ADDED: m_mapStreamByHandle[line.m_uAddress] = line.m_nStream; break;
    case LOG_EVENT_STREAM_OPENED: openStream(thread, line); break;
    case LOG_EVENT_STREAM_CLOSING:
        thread.m_nCloseStream = line.m_nStream;
        thread.m_pszWhy = "the stream was closed";
        break;
    case LOG_EVENT_STREAM_CLEARED: dropStream(line.m_nStream, "the stream was closed", line.m_llTime, false); break;
    default: // LOG_EVENT_CANCEL
        thread.m_nCancelStream = line.m_nStream;
        thread.m_pszWhy = "cancelled";
        if (!m_bSeesObjects)
            dropStream(line.m_nStream, "cancelled", line.m_llTime, true);
        break;
    }
}

void CCommandLives::CProcessLives::addRequestLine(CThread& thread, CLogLine& line)
{
    if (line.m_event == LOG_EVENT_NEW_COMMAND)
    {
        m_bSeesObjects = true;
        thread.m_bNew = true;
        thread.m_uNewAddress = line.m_uAddress;
        return;
    }
    if (line.m_event == LOG_EVENT_REQUEST)
        beginRequest(thread, line);
    else if (line.m_event == LOG_EVENT_ENTERING)
        resolveStarting(thread, line.m_bRecordSide);
    const CLife life = thread.m_current;
    if (!life)
        return;
    line.m_nCommand = life->m_nCommand;
    line.m_nStream = life->m_nStream;
    switch (line.m_event)
    {
    case LOG_EVENT_QUEUED:
        if (life->m_llQueued == NO_TIME)
            life->m_llQueued = line.m_llTime;
        enqueue(streamOf(life->m_nStream).m_aSides[line.m_bRecordSide].m_queue, life);
        break;
    case LOG_EVENT_ACTIVE: activate(life, line.m_bRecordSide, line.m_llTime); break;
    case LOG_EVENT_NUMBERED:
    case LOG_EVENT_SENT_NUMBER: number(life, line.m_uSequence); break;
    case LOG_EVENT_SENDING: life->m_llSent = line.m_llTime; break;
    case LOG_EVENT_RESPONSE:
        if (line.m_uSequence != 0) // else a late one that was thrown away
            life->m_llAnswered = line.m_llTime;
        break;
    case LOG_EVENT_RESULT: endRequest(thread, line); break;
    default: break;
    }
}

void CCommandLives::CProcessLives::beginCall(CThread& thread, const CLogLine& line)
{
    const unsigned int uExpected = commandsOf(line.m_strvName);
    if (uExpected == bit(MICMD_CLOSESTREAM) && (thread.m_call.m_uExpected & uExpected))
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
    return !isPlayOrRecordCommand(nCommand) || (thread.m_call.m_uExpected & bit(nCommand)) != 0;
}

void CCommandLives::CProcessLives::beginRequest(CThread& thread, const CLogLine& line)
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
    const unsigned int uBit = bit(life.m_nCommand);
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

void CCommandLives::CProcessLives::activate(const CLife& life, bool bRecordSide, int64_t llTime)
{
    CLife& active = streamOf(life->m_nStream).m_aSides[bRecordSide].m_active;
    if (active && active != life)
        finishLife(active, OUTCOME_ENDED, "", llTime); // the lines of its end are missing
    active = life;
}

void CCommandLives::CProcessLives::number(const CLife& life, uint32_t uSequence)
{
    life->m_uSequence = uSequence;
    m_mapBySequence[uSequence] = life;
}

void CCommandLives::CProcessLives::endRequest(CThread& thread, const CLogLine& line)
{
    const CLife life = std::exchange(thread.m_current, nullptr);
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

void CCommandLives::CProcessLives::openStream(CThread& thread, const CLogLine& line)
{
    if (line.m_nStream >= 0)
    {
        closeStream(line.m_nStream, line.m_llTime); // the line of its close is missing, or the driver was lost
        CStream& stream = streamOf(line.m_nStream);
        stream.m_llBegan = line.m_llTime;
        stream.m_strName = line.m_strvText.substr(0, MAX_DETAIL);
        if (const size_t nLeg = stream.m_strName.rfind(", legid "); nLeg != std::string::npos)
            stream.m_strName.replace(nLeg, 8, ", leg ");
    }
    if (thread.m_held)
        attachStream(*thread.m_held, line.m_nStream);
    releaseHeld(thread);
}
