#include "WorkerProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <stdexcept>

namespace
{
constexpr int COMMAND_FD = 3; // where the worker expects its commands
constexpr int LONGEST_RUN_MS = 60000;
} // namespace

CWorkerProcess::CWorkerProcess(const CPrograms& programs, const std::string& strWorker)
{
    std::array<int, 2> fds;
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds.data()) != 0)
        throw std::runtime_error("no socket pair");
    m_fdCommands = CFd(fds[0]);
    const CFd fdWorker(fds[1]);
    m_nProcess = ::fork();
    if (m_nProcess == 0)
    {
        // Not below the worker's descriptor, which dup2 would then leave closed on exec.
        const int nAside = ::fcntl(fdWorker.get(), F_DUPFD, COMMAND_FD + 1);
        ::dup2(nAside, COMMAND_FD);
        ::close(nAside);
        ::execl(programs.m_strPrivateTmp.c_str(), programs.m_strPrivateTmp.c_str(), strWorker.c_str(),
                programs.m_strPeer.c_str(), nullptr);
        ::_exit(127);
    }
    if (m_nProcess < 0)
        throw std::runtime_error("no process for a worker");
}

CWorkerProcess::~CWorkerProcess()
{
    ::kill(m_nProcess, SIGKILL);
    ::waitpid(m_nProcess, nullptr, 0);
}

std::chrono::nanoseconds CWorkerProcess::run(const std::string& strProbe, int64_t nOperations)
{
    const std::string strCommand = strProbe + " " + std::to_string(nOperations);
    ::send(m_fdCommands.get(), strCommand.data(), strCommand.size(), MSG_NOSIGNAL);
    pollfd entry = {m_fdCommands.get(), POLLIN, 0};
    if (::poll(&entry, 1, LONGEST_RUN_MS) <= 0)
    {
        ::kill(m_nProcess, SIGKILL);
        throw std::runtime_error("the worker did not come back");
    }
    std::array<char, 1024> answer;
    const ssize_t nBytes = ::recv(m_fdCommands.get(), answer.data(), answer.size(), 0);
    if (nBytes <= 0)
        throw std::runtime_error("the worker has died");
    const std::string strAnswer(answer.data(), static_cast<size_t>(nBytes));
    if (strAnswer.starts_with('!'))
        throw std::runtime_error(strAnswer.substr(1));
    return std::chrono::nanoseconds(std::stoll(strAnswer));
}
