// A driver that kills itself at an exact step: step-driver FIRST-STREAM-ID COMMAND STEP NUMBER [armed]
//
// STEP: read (a request of that command is read, nothing is done), answered, event (its play or
// recording has ended, nobody is told) or told. It happens to the NUMBERth such command, counted from
// SIGUSR1 on, or from the start with "armed". Plays take 40 ms, files with "long" in their names until
// they are cancelled, recordings a second; a play ends with the status that its play parameter says.
#include "ScriptedPlayer.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>

namespace
{
std::atomic<bool> s_bArmed{false};

class CStepDriver
{
public:
    CStepDriver(int nFirstStreamID, int nCommand, std::string strStep, int nNumber)
        : m_nCommand(nCommand), m_strStep(std::move(strStep)), m_nNumber(nNumber), m_nNextStreamID(nFirstStreamID)
    {
        m_player.m_onEnd = [this](const structMICMD& request) { reach("event", kindOf(request)); };
        m_player.m_onTold = [this](const structMICMD& request) { reach("told", kindOf(request)); };
        m_driver.keepNoRequests();
        m_driver.onTurn([this] { m_player.endWhatIsDue(); });
        m_driver.onEveryRequest([this](const structMICMD& request) {
            reach("read", request.s_micmd);
            if (request.s_micmd == MICMD_CONNECT || request.nConnectID == getpid())
                answer(request);
            reach("answered", request.s_micmd);
            return true;
        });
        m_driver.start();
    }

private:
    static MICMD kindOf(const structMICMD& request)
    {
        return request.s_micmd == MICMD_RECORDFILE ? MICMD_RECORDFILE : MICMD_PLAYFILE;
    }

    void reach(const char* pszStep, MICMD micmd)
    {
        if (s_bArmed && micmd == m_nCommand && m_strStep == pszStep && --m_nNumber == 0)
            kill(getpid(), SIGKILL);
    }

    void answer(const structMICMD& request)
    {
        switch (request.s_micmd)
        {
        case MICMD_CONNECT: return m_driver.acceptWith(request, getpid());
        case MICMD_OPENFILE: return m_driver.acceptWith(request, *m_files.insert(m_nNextFileID++).first);
        case MICMD_OPENSTREAM: return m_driver.acceptWith(request, *m_streams.insert(m_nNextStreamID++).first);
        default: break;
        }
        if (carryOut(request))
            m_driver.acceptWith(request, 0);
        else
            m_driver.respond(request, MIRSP_STATUS, MISTATUS_FAILED);
    }

    bool carryOut(const structMICMD& request)
    {
        using std::chrono::milliseconds;
        const milliseconds SHORT(40);
        const milliseconds LONG(1000 * 1000);
        const int32_t nStreamID = request.stream.nStreamID;
        switch (request.s_micmd)
        {
        case MICMD_CLOSEFILE: return m_files.erase(request.closeFile.nFileID) == 1;
        case MICMD_CLOSESTREAM: m_player.forget(nStreamID); return m_streams.erase(nStreamID) == 1;
        case MICMD_PLAYCLIP:
            return m_files.count(request.playClip.nFileID) == 1 && begin(request, request.playClip.nPlayParam, SHORT);
        case MICMD_PLAYFILE:
            return begin(request, request.playFile.nPlayParam,
                         strstr(request.playFile.szFileName, "long") ? LONG : SHORT);
        case MICMD_RECORDFILE: return begin(request, 0, milliseconds(request.recordFile.nMaxSamples / 8));
        case MICMD_CANCEL: m_player.cancel(request); return m_streams.count(nStreamID) == 1;
        default: return true;
        }
    }

    bool begin(const structMICMD& request, uint32_t nStatus, std::chrono::milliseconds length)
    {
        const bool bPossible = m_streams.count(request.stream.nStreamID) == 1 &&
                               !m_player.isRunning(request.stream.nStreamID, request.s_micmd == MICMD_RECORDFILE);
        if (bPossible)
            m_player.begin(request, static_cast<int32_t>(nStatus), length);
        return bPossible;
    }

    const int m_nCommand;
    const std::string m_strStep;
    int m_nNumber;
    int32_t m_nNextStreamID;
    int32_t m_nNextFileID = 1;
    std::set<int32_t> m_streams;
    std::set<int32_t> m_files;
    CScriptedDriver m_driver{false};
    CScriptedPlayer m_player{m_driver};
};
} // namespace

int main(int nArguments, char** ppszArguments)
{
    if (nArguments < 5)
        return 2;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGUSR1, [](int) { s_bArmed = true; });
    s_bArmed = nArguments > 5;
    const CStepDriver driver(atoi(ppszArguments[1]), atoi(ppszArguments[2]), ppszArguments[3], atoi(ppszArguments[4]));
    if (write(STDOUT_FILENO, "ready\n", 6) != 6)
        return 1;
    for (;;)
        pause();
}
