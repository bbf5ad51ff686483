#include "ReferenceDriver.h"
#include "Places.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
// Runs a program with nOutput as its standard output. -1 when it cannot be started.
pid_t spawn(const std::string& strProgram, const std::vector<std::string>& vArguments, int nOutput)
{
    std::vector<std::string> vWords = {strProgram};
    vWords.insert(vWords.end(), vArguments.begin(), vArguments.end());
    std::vector<char*> vPointers;
    for (std::string& strWord : vWords)
        vPointers.push_back(strWord.data());
    vPointers.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, nOutput, STDOUT_FILENO);
    pid_t nProcessID = -1;
    const int nError = posix_spawn(&nProcessID, strProgram.c_str(), &actions, nullptr, vPointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return nError == 0 ? nProcessID : -1;
}
} // namespace

CDriverProcess::~CDriverProcess()
{
    kill();
}

bool CDriverProcess::start(const std::string& strProgram, const std::vector<std::string>& vArguments)
{
    int anPipe[2] = {-1, -1};
    if (pipe2(anPipe, O_CLOEXEC) != 0)
        return false;
    m_nProcessID = spawn(strProgram, vArguments, anPipe[1]);
    close(anPipe[1]);
    char c = 0; // none when it cannot start
    const bool bReady = m_nProcessID > 0 && read(anPipe[0], &c, 1) == 1;
    close(anPipe[0]);
    return bReady;
}

void CDriverProcess::signal(int nSignal) const
{
    if (m_nProcessID > 0)
        ::kill(m_nProcessID, nSignal);
}

void CDriverProcess::freeze() const
{
    signal(SIGSTOP);
    waitpid(m_nProcessID, nullptr, WUNTRACED);
}

void CDriverProcess::kill()
{
    signal(SIGKILL);
    ended(true);
}

bool CDriverProcess::ended(bool bWait)
{
    if (m_nProcessID > 0 && waitpid(m_nProcessID, nullptr, bWait ? 0 : WNOHANG) == m_nProcessID)
        m_nProcessID = -1;
    return m_nProcessID <= 0;
}

bool CReferenceDriver::start(const std::vector<std::string>& vOptions)
{
    return CDriverProcess::start(REFERENCE_DRIVER_PROGRAM, vOptions);
}

void CReferenceDriver::stop(int nSignal)
{
    signal(nSignal);
    waitEnd();
}

bool CReferenceDriver::control(const std::vector<std::string>& vWords)
{
    std::vector<std::string> vArguments = {"ctl"};
    vArguments.insert(vArguments.end(), vWords.begin(), vWords.end());
    const int nNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const pid_t nProcessID = spawn(REFERENCE_DRIVER_PROGRAM, vArguments, nNull);
    close(nNull);
    int nStatus = -1;
    return nProcessID > 0 && waitpid(nProcessID, &nStatus, 0) == nProcessID && nStatus == 0;
}
