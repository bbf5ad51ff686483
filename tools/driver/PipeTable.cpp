// The pipes of client processes in /tmp: whose they are, and which are left of processes that ended.
#include "driver/PipeTable.h"
#include "MediaProtocol.h"
#include "base/ToolError.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace
{
// A process opens its pipe right after it has made it.
const double STARTING_SECONDS = 10;
// Clocks of processes and of files are coarse.
const double CLOCK_SLACK_SECONDS = 0.1;

struct CKind
{
    const char* pszName;
    std::string_view svPrefix;
};
const CKind KINDS[] = {{"response", MI_RESPONSE_PIPE_PREFIX}, {"event", MI_EVENT_PIPE_PREFIX}};

double secondsOf(const statx_timestamp& time)
{
    return static_cast<double>(time.tv_sec) + time.tv_nsec / 1e9;
}

double secondsNow(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// 0 when the text is no process id in the one way in which the library writes it.
pid_t processIDOf(std::string_view svDigits)
{
    pid_t nProcessID = 0;
    const char* const pEnd = svDigits.data() + svDigits.size();
    const auto [pStop, error] = std::from_chars(svDigits.data(), pEnd, nProcessID);
    const bool bGood = error == std::errc() && pStop == pEnd && nProcessID > 0 && svDigits.front() != '0';
    return bGood ? nProcessID : 0;
}

bool lives(pid_t nProcessID)
{
    return kill(nProcessID, 0) == 0 || errno != ESRCH;
}

// When the process was started, in seconds before now; nothing when that cannot be seen.
std::optional<double> secondsSinceStart(pid_t nProcessID)
{
    std::string strStat;
    std::getline(std::ifstream("/proc/" + std::to_string(nProcessID) + "/stat"), strStat);
    const size_t nNameEnd = strStat.rfind(')'); // the name may hold anything
    if (nNameEnd == std::string::npos)
        return std::nullopt;
    std::istringstream fields(strStat.substr(nNameEnd + 1));
    std::string strField;
    for (int nField = 3; nField < 22; ++nField)
        fields >> strField;
    double dTicks = 0;
    if (!(fields >> dTicks))
        return std::nullopt;
    return secondsNow(CLOCK_BOOTTIME) - dTicks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

enum EReaders
{
    READERS_SOME,
    READERS_NONE,
    READERS_UNKNOWN
};

// Who opens a pipe for writing without waiting learns whether somebody reads it. The library notices
// nothing: its own end keeps each of its pipes open for writing.
EReaders readersOf(const std::string& strPath)
{
    const int nDescriptor = open(strPath.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    if (nDescriptor == -1)
        return errno == ENXIO ? READERS_NONE : READERS_UNKNOWN;
    close(nDescriptor);
    return READERS_SOME;
}

EPipeState judge(const CClientPipe& pipe)
{
    const EReaders readers = readersOf(pipe.strPath);
    if (readers == READERS_SOME)
        return PIPE_IN_USE;
    if (!pipe.bProcessLives)
        return PIPE_STALE;
    if (readers == READERS_UNKNOWN)
        return PIPE_UNKNOWN;
    // Ids come again: the pipe of a process that is younger than the pipe is another one's.
    const std::optional<double> dSinceStart = secondsSinceStart(pipe.nProcessID);
    const bool bOlderThanProcess = dSinceStart && pipe.dIdle > *dSinceStart + CLOCK_SLACK_SECONDS;
    return bOlderThanProcess || pipe.dIdle > STARTING_SECONDS ? PIPE_STALE : PIPE_STARTING;
}

std::optional<CClientPipe> look(const CKind& kind, pid_t nProcessID)
{
    CClientPipe pipe;
    pipe.strPath = std::string(kind.svPrefix) + std::to_string(nProcessID);
    pipe.strKind = kind.pszName;
    pipe.nProcessID = nProcessID;

    struct statx status = {};
    const int nFlags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
    if (statx(AT_FDCWD, pipe.strPath.c_str(), nFlags, STATX_BASIC_STATS | STATX_BTIME, &status) != 0)
        return std::nullopt;
    pipe.nDevice = makedev(status.stx_dev_major, status.stx_dev_minor);
    pipe.nInode = status.stx_ino;
    const double dUsed = std::max(secondsOf(status.stx_mtime), secondsOf(status.stx_ctime));
    const double dMade = (status.stx_mask & STATX_BTIME) != 0 ? secondsOf(status.stx_btime) : dUsed;
    const double dNow = secondsNow(CLOCK_REALTIME);
    pipe.dAge = std::max(dNow - dMade, 0.0);
    pipe.dIdle = std::max(dNow - dUsed, 0.0);
    pipe.bProcessLives = lives(nProcessID);
    pipe.state = S_ISFIFO(status.stx_mode) ? judge(pipe) : PIPE_FOREIGN;
    return pipe;
}
} // namespace

const char* pipeStateToString(EPipeState state)
{
    switch (state)
    {
    case PIPE_IN_USE: return "in use";
    case PIPE_STARTING: return "starting";
    case PIPE_STALE: return "stale";
    case PIPE_UNKNOWN: return "unknown";
    case PIPE_FOREIGN: return "no pipe";
    }
    return "";
}

std::vector<CClientPipe> listClientPipes()
{
    const std::filesystem::path folder = std::filesystem::path(MI_REQUEST_PIPE).parent_path();
    std::vector<pid_t> vProcessIDs;
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), itEnd; !error && it != itEnd; it.increment(error))
    {
        const std::string strPath = it->path().string();
        for (const CKind& kind : KINDS)
        {
            const std::string_view svPath = strPath;
            const bool bLonger = svPath.size() > kind.svPrefix.size() && svPath.starts_with(kind.svPrefix);
            if (const pid_t nProcessID = bLonger ? processIDOf(svPath.substr(kind.svPrefix.size())) : 0)
                vProcessIDs.push_back(nProcessID);
        }
    }
    if (error)
        throw CToolError(EXIT_CODE_FAILED, "cannot read " + folder.string() + ": " + error.message());
    std::sort(vProcessIDs.begin(), vProcessIDs.end());
    vProcessIDs.erase(std::unique(vProcessIDs.begin(), vProcessIDs.end()), vProcessIDs.end());

    std::vector<CClientPipe> vPipes;
    for (const pid_t nProcessID : vProcessIDs)
    {
        const std::vector<CClientPipe> vOfProcess = listClientPipes(nProcessID);
        vPipes.insert(vPipes.end(), vOfProcess.begin(), vOfProcess.end());
    }
    return vPipes;
}

std::vector<CClientPipe> listClientPipes(pid_t nProcessID)
{
    std::vector<CClientPipe> vPipes;
    for (const CKind& kind : KINDS)
        if (const std::optional<CClientPipe> pipe = look(kind, nProcessID))
            vPipes.push_back(*pipe);
    return vPipes;
}

bool removeStalePipe(const CClientPipe& pipe, std::string& strError)
{
    strError.clear();
    const std::vector<CClientPipe> vNow = listClientPipes(pipe.nProcessID);
    const bool bStillStale = std::any_of(vNow.begin(), vNow.end(), [&pipe](const CClientPipe& now) {
        return now.strPath == pipe.strPath && now.nDevice == pipe.nDevice && now.nInode == pipe.nInode &&
               now.state == PIPE_STALE;
    });
    if (!bStillStale)
        return false;
    if (unlink(pipe.strPath.c_str()) == 0)
        return true;
    if (errno != ENOENT)
        strError = std::strerror(errno);
    return false;
}

std::string commandName(pid_t nProcessID)
{
    std::string strName;
    std::getline(std::ifstream("/proc/" + std::to_string(nProcessID) + "/comm"), strName);
    std::replace_if(
        strName.begin(), strName.end(), [](unsigned char c) { return c < ' ' || c >= 0x7F; }, '?');
    return strName;
}
