// A driver that kills itself at an exact step: step-driver FIRST-STREAM-ID COMMAND STEP NUMBER [armed]
//
// STEP: read (a request of that command is read, nothing is done), answered, event (its play or
// recording has ended, nobody is told) or told. It happens to the NUMBERth such command, counted from
// SIGUSR1 on, or from the start with "armed". Plays take 40 ms, files with "long" in their names until
// they are cancelled, recordings a second; a play ends with the status that its play parameter says.
#include "MediaProtocol.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <set>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
using CClock = std::chrono::steady_clock;

std::atomic<bool> s_bArmed{false};

class CStepDriver
{
public:
    CStepDriver(int nFirstStreamID, int nCommand, std::string strStep, int nNumber)
        : m_nCommand(nCommand), m_strStep(std::move(strStep)), m_nNumber(nNumber), m_nNextStreamID(nFirstStreamID)
    {
    }

    int run();

private:
    struct CRunning // a play or a recording
    {
        uint32_t nSequenceNo;
        int32_t nStatus;
        CClock::time_point end;
    };
    using CRunningMap = std::map<int32_t, CRunning>; // by stream

    void handle(const structMICMD& cmd);
    void connect(const structMICMD& cmd);
    void respond(const structMICMD& cmd, MIRSP mirsp, int32_t nResult);
    int32_t carryOut(const structMICMD& cmd);
    int32_t begin(CRunningMap& map, const structMICMD& cmd, int32_t nStatus, std::chrono::milliseconds length);
    int32_t cancel(const structMICMD& cmd);
    void end(CRunningMap& map, CRunningMap::iterator it, int32_t nStatus, MICMD micmd);
    void endWhatIsOver(CRunningMap& map, MICMD micmd);
    void reach(const char* pszStep, MICMD micmd);

    const int m_nCommand;
    const std::string m_strStep;
    int m_nNumber;
    int m_nRequestPipe = -1;
    int m_nResponsePipe = -1;
    int m_nEventPipe = -1;
    int32_t m_nConnectID = -1;
    int32_t m_nNextStreamID;
    int32_t m_nNextFileID = 1;
    std::set<int32_t> m_streams;
    std::set<int32_t> m_files;
    CRunningMap m_plays;
    CRunningMap m_records;
};

int CStepDriver::run()
{
    unlink(MI_REQUEST_PIPE);
    if (mkfifo(MI_REQUEST_PIPE, 0666) != 0)
        return 1;
    m_nRequestPipe = open(MI_REQUEST_PIPE, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (m_nRequestPipe < 0 || write(STDOUT_FILENO, "ready\n", 6) != 6)
        return 1;
    for (;;)
    {
        pollfd entry = {m_nRequestPipe, POLLIN, 0};
        structMICMD cmd;
        if (poll(&entry, 1, 5) > 0 && read(m_nRequestPipe, &cmd, sizeof(cmd)) == static_cast<ssize_t>(sizeof(cmd)))
            handle(cmd);
        endWhatIsOver(m_plays, MICMD_PLAYFILE);
        endWhatIsOver(m_records, MICMD_RECORDFILE);
    }
}

void CStepDriver::reach(const char* pszStep, MICMD micmd)
{
    if (s_bArmed && micmd == m_nCommand && m_strStep == pszStep && --m_nNumber == 0)
        kill(getpid(), SIGKILL);
}

void CStepDriver::handle(const structMICMD& cmd)
{
    reach("read", cmd.s_micmd);
    if (cmd.s_micmd == MICMD_CONNECT)
        connect(cmd);
    else if (cmd.nConnectID != m_nConnectID)
        return;
    switch (cmd.s_micmd)
    {
    case MICMD_CONNECT: respond(cmd, MIRSP_CONNECT, m_nConnectID); break;
    case MICMD_OPENFILE: respond(cmd, MIRSP_OPENFILE, *m_files.insert(m_nNextFileID++).first); break;
    case MICMD_OPENSTREAM: respond(cmd, MIRSP_OPENSTREAM, *m_streams.insert(m_nNextStreamID++).first); break;
    case MICMD_RECORDGETTIME: respond(cmd, MIRSP_RECORDGETTIME, 0); break;
    case MICMD_RECORDGETSTATUS: respond(cmd, MIRSP_RECORDGETSTATUS, 0); break;
    default: respond(cmd, MIRSP_STATUS, carryOut(cmd)); break;
    }
    reach("answered", cmd.s_micmd);
}

void CStepDriver::connect(const structMICMD& cmd)
{
    m_nResponsePipe = open(cmd.connect.szRspPipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    m_nEventPipe = open(cmd.connect.szEvtPipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    m_nConnectID = getpid();
}

void CStepDriver::respond(const structMICMD& cmd, MIRSP mirsp, int32_t nResult)
{
    structMIRSP rsp = {};
    rsp.s_mirsp = mirsp;
    rsp.nRespSequenceNo = cmd.nSequenceNo;
    rsp.s_nResult = nResult;
    if (write(m_nResponsePipe, &rsp, sizeof(rsp)) != static_cast<ssize_t>(sizeof(rsp)))
        abort();
}

int32_t CStepDriver::carryOut(const structMICMD& cmd)
{
    using std::chrono::milliseconds;
    const milliseconds SHORT(40);
    const milliseconds LONG(1000 * 1000);
    const int32_t nStreamID = cmd.stream.nStreamID;
    switch (cmd.s_micmd)
    {
    case MICMD_CLOSEFILE: return m_files.erase(cmd.closeFile.nFileID) == 1 ? MISTATUS_OK : MISTATUS_FAILED;
    case MICMD_CLOSESTREAM:
        m_plays.erase(nStreamID);
        m_records.erase(nStreamID);
        return m_streams.erase(nStreamID) == 1 ? MISTATUS_OK : MISTATUS_FAILED;
    case MICMD_PLAYCLIP:
        if (m_files.count(cmd.playClip.nFileID) == 0)
            return MISTATUS_FAILED;
        return begin(m_plays, cmd, static_cast<int32_t>(cmd.playClip.nPlayParam), SHORT);
    case MICMD_PLAYFILE:
        return begin(m_plays, cmd, static_cast<int32_t>(cmd.playFile.nPlayParam),
                     strstr(cmd.playFile.szFileName, "long") ? LONG : SHORT);
    case MICMD_RECORDFILE: return begin(m_records, cmd, 0, milliseconds(cmd.recordFile.nMaxSamples / 8));
    case MICMD_CANCEL: return cancel(cmd);
    case MICMD_PING:
    case MICMD_DUMP: return MISTATUS_OK;
    default: return MISTATUS_FAILED;
    }
}

int32_t CStepDriver::begin(CRunningMap& map, const structMICMD& cmd, int32_t nStatus, std::chrono::milliseconds length)
{
    const int32_t nStreamID = cmd.stream.nStreamID;
    const bool bBegun = m_streams.count(nStreamID) == 1 &&
                        map.emplace(nStreamID, CRunning{cmd.nSequenceNo, nStatus, CClock::now() + length}).second;
    return bBegun ? MISTATUS_OK : MISTATUS_FAILED;
}

int32_t CStepDriver::cancel(const structMICMD& cmd)
{
    const int32_t CANCELLED = 3;
    const bool bRecord = cmd.cancel.nCancelType == MICANCEL_RECORD;
    CRunningMap& map = bRecord ? m_records : m_plays;
    const auto it = map.find(cmd.cancel.nStreamID);
    if (it != map.end())
        end(map, it, CANCELLED, bRecord ? MICMD_RECORDFILE : MICMD_PLAYFILE);
    return m_streams.count(cmd.cancel.nStreamID) == 1 ? MISTATUS_OK : MISTATUS_FAILED;
}

void CStepDriver::end(CRunningMap& map, CRunningMap::iterator it, int32_t nStatus, MICMD micmd)
{
    structMIEVT evt;
    evt.s_mievt = MIEVT_DONE;
    evt.nStreamID = it->first;
    evt.nSequenceID = it->second.nSequenceNo;
    evt.s_mcstatus = nStatus;
    map.erase(it);
    reach("event", micmd);
    if (write(m_nEventPipe, &evt, sizeof(evt)) != static_cast<ssize_t>(sizeof(evt)))
        abort();
    reach("told", micmd);
}

void CStepDriver::endWhatIsOver(CRunningMap& map, MICMD micmd)
{
    const CClock::time_point now = CClock::now();
    for (auto it = map.begin(); it != map.end();)
    {
        const auto itOver = it++;
        if (itOver->second.end <= now)
            end(map, itOver, itOver->second.nStatus, micmd);
    }
}
} // namespace

int main(int nArguments, char** ppszArguments)
{
    if (nArguments < 5)
        return 2;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGUSR1, [](int) { s_bArmed = true; });
    s_bArmed = nArguments > 5;
    CStepDriver driver(atoi(ppszArguments[1]), atoi(ppszArguments[2]), ppszArguments[3], atoi(ppszArguments[4]));
    return driver.run();
}
