// CToolRun: the command zelmedia as a child process, as a user types it.
#include "ToolRun.h"
#include "Places.h"

#include "SampleFiles.h"
#include "WaitUntil.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <pty.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{
void redirect(const std::string& strPath, int nDescriptor)
{
    const int nFile = open(strPath.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
    dup2(nFile, nDescriptor);
    close(nFile);
}
} // namespace

CToolRun::CToolRun(const std::vector<std::string>& vArguments, EOutput output)
{
    char szFolder[] = "/tmp/tool-run-XXXXXX";
    if (!mkdtemp(szFolder))
        throw std::runtime_error("no folder for a tool's output");
    m_strFolder = szFolder;

    const winsize size = {24, 80, 0, 0};
    m_nProcessID = output == TO_TERMINAL ? forkpty(&m_nTerminal, nullptr, nullptr, &size) : fork();
    if (m_nProcessID == 0)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (output == TO_FILE)
        {
            const int nNothing = open("/dev/null", O_RDONLY);
            dup2(nNothing, STDIN_FILENO);
            redirect(m_strFolder + "/out", STDOUT_FILENO);
            redirect(m_strFolder + "/err", STDERR_FILENO);
        }
        std::vector<char*> vpArguments = {const_cast<char*>("zelmedia")};
        for (const std::string& strArgument : vArguments)
            vpArguments.push_back(const_cast<char*>(strArgument.c_str()));
        vpArguments.push_back(nullptr);
        execv(ZELMEDIA_PROGRAM, vpArguments.data());
        _exit(127);
    }
    if (m_nTerminal >= 0)
        fcntl(m_nTerminal, F_SETFL, O_NONBLOCK);
}

CToolRun::~CToolRun()
{
    if (!m_bEnded)
    {
        kill(m_nProcessID, SIGKILL);
        waitpid(m_nProcessID, nullptr, 0);
    }
    if (m_nTerminal >= 0)
        close(m_nTerminal);
    std::filesystem::remove_all(m_strFolder);
}

void CToolRun::signal(int nSignal) const
{
    kill(m_nProcessID, nSignal);
}

bool CToolRun::waitOutput(const std::string& strText)
{
    const auto arrived = [&] { return output().find(strText) != std::string::npos; };
    const auto hasEnded = [&] {
        siginfo_t info = {};
        return waitid(P_PID, static_cast<id_t>(m_nProcessID), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid != 0;
    };
    bool bEnded = false;
    waitUntil([&] { return arrived() || (bEnded = m_bEnded || hasEnded()); }, std::chrono::seconds(30));
    return arrived();
}

int CToolRun::waitExit()
{
    int nStatus = 0;
    const auto ended = [&] {
        readTerminal(); // or it would wait for room
        return waitpid(m_nProcessID, &nStatus, WNOHANG) == m_nProcessID;
    };
    if (!m_bEnded && waitUntil(ended, std::chrono::seconds(60)))
    {
        m_bEnded = true;
        m_nExit = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus);
    }
    return m_nExit;
}

std::string CToolRun::output()
{
    if (m_nTerminal < 0)
        return readFile(m_strFolder + "/out");
    readTerminal();
    return m_strTerminal;
}

std::string CToolRun::errors() const
{
    return readFile(m_strFolder + "/err");
}

void CToolRun::readTerminal()
{
    char szBuffer[4096];
    ssize_t nRead = 0;
    while (m_nTerminal >= 0 && (nRead = read(m_nTerminal, szBuffer, sizeof(szBuffer))) > 0)
        m_strTerminal.append(szBuffer, static_cast<size_t>(nRead));
}
