// The reference driver as a child process, for tests of the library against it.
#include "ReferenceDriver.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
// Runs the program with nOutput as its standard output. -1 when it cannot be started.
pid_t spawn(const std::vector<std::string>& vArguments, int nOutput)
{
    std::string strProgram = REFERENCE_DRIVER_PROGRAM;
    std::vector<std::string> vCopies = vArguments;
    std::vector<char*> vPointers = {strProgram.data()};
    for (std::string& strArgument : vCopies)
        vPointers.push_back(strArgument.data());
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

CReferenceDriver::~CReferenceDriver()
{
    stop(SIGKILL);
}

bool CReferenceDriver::start(const std::vector<std::string>& vOptions)
{
    int anPipe[2] = {-1, -1};
    if (pipe2(anPipe, O_CLOEXEC) != 0)
        return false;
    m_nProcessID = spawn(vOptions, anPipe[1]);
    close(anPipe[1]);
    // Its first output is the line that says that it is ready; it has none when it cannot start.
    char c = 0;
    const bool bReady = m_nProcessID > 0 && read(anPipe[0], &c, 1) == 1;
    close(anPipe[0]);
    return bReady;
}

void CReferenceDriver::stop(int nSignal)
{
    if (m_nProcessID > 0)
    {
        kill(m_nProcessID, nSignal);
        waitEnd();
    }
}

void CReferenceDriver::waitEnd()
{
    waitpid(m_nProcessID, nullptr, 0);
    m_nProcessID = -1;
}

bool CReferenceDriver::control(const std::vector<std::string>& vWords)
{
    std::vector<std::string> vArguments = {"ctl"};
    vArguments.insert(vArguments.end(), vWords.begin(), vWords.end());
    const int nNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const pid_t nProcessID = spawn(vArguments, nNull);
    close(nNull);
    int nStatus = -1;
    return nProcessID > 0 && waitpid(nProcessID, &nStatus, 0) == nProcessID && nStatus == 0;
}
