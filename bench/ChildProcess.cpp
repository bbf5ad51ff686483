#include "ChildProcess.h"

#include "MIntf.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace
{
struct CRequest
{
    int m_nOperation;
    int64_t m_nTimes;
};

// A figure, or "!" and what went wrong.
std::string answer(const CMeasuringChild::Measure& measure, const CRequest& request)
{
    try
    {
        return std::to_string(measure(request.m_nOperation, request.m_nTimes));
    }
    catch (const std::exception& exception)
    {
        return std::string("!") + exception.what();
    }
}

void serve(const CFd& fd, const std::function<CMeasuringChild::Measure()>& makeMeasure)
{
    CMeasuringChild::Measure measure;
    CRequest request = {};
    while (::recv(fd.get(), &request, sizeof(request), 0) == static_cast<ssize_t>(sizeof(request)))
    {
        const std::string strAnswer = answer(
            [&](int nOperation, int64_t nTimes) {
                if (!measure)
                    measure = makeMeasure();
                return measure(nOperation, nTimes);
            },
            request);
        ::send(fd.get(), strAnswer.data(), strAnswer.size(), MSG_NOSIGNAL);
    }
    delete g_pmintf; // the peer is to know that the streams of this process are gone
}
} // namespace

CChildProcess::CChildProcess(const std::function<void()>& work) : m_nProcess(::fork())
{
    if (m_nProcess < 0)
        throw std::runtime_error("no child process");
    if (m_nProcess > 0)
        return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    try
    {
        work();
    }
    catch (const std::exception&)
    {
        ::_exit(EXIT_FAILURE);
    }
    ::_exit(EXIT_SUCCESS);
}

CChildProcess::~CChildProcess()
{
    if (m_nProcess <= 0)
        return;
    ::kill(m_nProcess, SIGKILL);
    waitEnd();
}

void CChildProcess::waitEnd()
{
    ::waitpid(m_nProcess, nullptr, 0);
    m_nProcess = -1;
}

CMeasuringChild::CSockets CMeasuringChild::makeSockets()
{
    if (g_pmintf)
        throw std::runtime_error("a process with a library in it cannot have measuring children");
    std::array<int, 2> fds;
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds.data()) != 0)
        throw std::runtime_error("no sockets for a child process");
    return {CFd(fds[0]), CFd(fds[1])};
}

CMeasuringChild::CMeasuringChild(const std::function<Measure()>& makeMeasure)
    : m_sockets(makeSockets()), m_child([this, &makeMeasure] {
          m_sockets.m_fdParent.close();
          serve(m_sockets.m_fdChild, makeMeasure);
      })
{
    m_sockets.m_fdChild.close();
}

int64_t CMeasuringChild::run(int nOperation, int64_t nTimes)
{
    const CRequest request = {nOperation, nTimes};
    std::array<char, 256> answer;
    ::send(m_sockets.m_fdParent.get(), &request, sizeof(request), MSG_NOSIGNAL);
    const ssize_t nBytes = ::recv(m_sockets.m_fdParent.get(), answer.data(), answer.size(), 0);
    if (nBytes <= 0)
        throw std::runtime_error("a measuring child is gone");
    const std::string strAnswer(answer.data(), static_cast<size_t>(nBytes));
    if (strAnswer.front() == '!')
        throw std::runtime_error(strAnswer.substr(1));
    return std::stoll(strAnswer);
}

void CMeasuringChild::end()
{
    // Other children may have the socket, too: closing it would not tell.
    ::shutdown(m_sockets.m_fdParent.get(), SHUT_WR);
    m_child.waitEnd();
}
