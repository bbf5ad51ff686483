// CChild: forks, and says how it ended.
#include "Child.h"

#include "WaitUntil.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <utility>

bool CChild::start(const std::vector<std::string>& vWords, const CStreams& streams)
{
    std::vector<std::string> vCopies = vWords;
    std::vector<char*> vPointers;
    for (std::string& strWord : vCopies)
        vPointers.push_back(strWord.data());
    vPointers.push_back(nullptr);
    kill();
    m_nProcessID = fork();
    if (m_nProcessID != 0)
        return m_nProcessID > 0;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const auto& [nFrom, nTo] :
         {std::pair(streams.m_nInput, STDIN_FILENO), std::pair(streams.m_nOutput, STDOUT_FILENO),
          std::pair(streams.m_nErrors, STDERR_FILENO)})
        if (nFrom >= 0)
            dup2(nFrom, nTo);
    execvp(vPointers[0], vPointers.data());
    _exit(127);
}

bool CChild::start(const std::function<int()>& work)
{
    fflush(stdout); // or it would be written twice
    kill();
    m_nProcessID = fork();
    if (m_nProcessID != 0)
        return m_nProcessID > 0;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int nStatus = -1;
    try
    {
        nStatus = work();
    }
    catch (const std::exception& exception)
    {
        fprintf(stderr, "a child process: %s\n", exception.what());
    }
    endChild(nStatus);
}

bool CChild::isRunning() const
{
    siginfo_t info = {};
    return m_nProcessID > 0 &&
           waitid(P_PID, static_cast<id_t>(m_nProcessID), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

void CChild::signal(int nSignal) const
{
    if (m_nProcessID > 0)
        ::kill(m_nProcessID, nSignal);
}

void CChild::freeze() const
{
    signal(SIGSTOP);
    waitpid(m_nProcessID, nullptr, WUNTRACED);
}

void CChild::kill()
{
    signal(SIGKILL);
    if (m_nProcessID > 0)
        waitpid(std::exchange(m_nProcessID, -1), nullptr, 0);
}

std::optional<int> CChild::waitExit(std::chrono::milliseconds limit)
{
    int nStatus = 0;
    if (!waitUntil([this] { return !isRunning(); }, limit) || m_nProcessID <= 0 ||
        waitpid(m_nProcessID, &nStatus, 0) != m_nProcessID)
        return std::nullopt;
    m_nProcessID = -1;
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus);
}

int openOutput(const std::string& strPath)
{
    return open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
}
