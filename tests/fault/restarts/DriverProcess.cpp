#include "DriverProcess.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

CDriverProcess::~CDriverProcess()
{
    kill();
}

bool CDriverProcess::start(const std::string& strProgram, const std::vector<std::string>& vArguments)
{
    std::vector<std::string> vWords = {strProgram};
    vWords.insert(vWords.end(), vArguments.begin(), vArguments.end());
    std::vector<char*> vPointers;
    for (std::string& strWord : vWords)
        vPointers.push_back(strWord.data());
    vPointers.push_back(nullptr);

    int anPipe[2] = {-1, -1};
    if (pipe2(anPipe, O_CLOEXEC) != 0)
        return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, anPipe[1], STDOUT_FILENO);
    const int nError = posix_spawn(&m_nProcessID, strProgram.c_str(), &actions, nullptr, vPointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (nError != 0)
        m_nProcessID = -1;
    close(anPipe[1]);
    char c = 0;
    const bool bReady = m_nProcessID > 0 && read(anPipe[0], &c, 1) == 1;
    close(anPipe[0]);
    return bReady;
}

void CDriverProcess::signal(int nSignal) const
{
    if (m_nProcessID > 0)
        ::kill(m_nProcessID, nSignal);
}

void CDriverProcess::stop() const
{
    signal(SIGSTOP);
    waitpid(m_nProcessID, nullptr, WUNTRACED);
}

void CDriverProcess::kill()
{
    if (m_nProcessID <= 0)
        return;
    signal(SIGKILL);
    ended(true);
}

bool CDriverProcess::ended(bool bWait)
{
    if (m_nProcessID > 0 && waitpid(m_nProcessID, nullptr, bWait ? 0 : WNOHANG) == m_nProcessID)
        m_nProcessID = -1;
    return m_nProcessID <= 0;
}
