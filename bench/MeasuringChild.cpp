#include "MeasuringChild.h"

#include "MIntf.h"

#include <sys/socket.h>

#include <array>
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

CMeasuringChild::CSockets CMeasuringChild::makeSockets()
{
    if (g_pmintf)
        throw std::runtime_error("a process with a library in it cannot have measuring children");
    std::array<int, 2> fds;
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds.data()) != 0)
        throw std::runtime_error("no sockets for a child process");
    return {CFd(fds[0]), CFd(fds[1])};
}

CMeasuringChild::CMeasuringChild(const std::function<Measure()>& makeMeasure) : m_sockets(makeSockets())
{
    const bool bStarted = m_child.start([this, &makeMeasure] {
        m_sockets.m_fdParent.close();
        serve(m_sockets.m_fdChild, makeMeasure);
        return EXIT_SUCCESS;
    });
    if (!bStarted)
        throw std::runtime_error("no child process");
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
    m_child.waitExit();
}
