// The client's end of JSON lines over a Unix stream socket.
#include "JsonLinesClient.h"

#include "JsonText.h"

#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

bool CJsonLinesClient::connect(const std::string& strPath, std::string& strError)
{
    close();
    CSocketFd fd = connectTo(strPath, strError);
    if (!fd.isOpen())
        return false;
    m_pStream = std::make_shared<CJsonLinesStream>(std::move(fd), MAX_LINE);
    m_ullLastID = 0;
    return true;
}

void CJsonLinesClient::close()
{
    m_pStream.reset();
}

int CJsonLinesClient::descriptor() const
{
    return m_pStream ? m_pStream->descriptor() : -1;
}

uint32_t CJsonLinesClient::wantedEvents() const
{
    return m_pStream ? EPOLLIN | (waiting() > 0 ? EPOLLOUT : 0U) : 0U;
}

bool CJsonLinesClient::onReady(const MessageFunction& message, std::string& strError)
{
    const std::shared_ptr<CJsonLinesStream> pStream = m_pStream;
    if (!pStream)
    {
        strError = "there is no connection";
        return false;
    }
    pStream->flush(); // if it is broken, what came before that still counts
    pStream->read();
    std::string strLine;
    nlohmann::json object;
    while (m_pStream == pStream && pStream->takeLine(strLine))
    {
        if (!parseJsonObject(strLine, object, strError))
        {
            close();
            return false;
        }
        message(object);
    }
    if (m_pStream == pStream && pStream->hasEnded())
    {
        strError = pStream->isTooLong() ? "the server sent a line that is too long" : "the server has ended it";
        close();
    }
    else if (!m_pStream)
    {
        strError = "it was closed";
    }
    return isConnected();
}

uint64_t CJsonLinesClient::request(nlohmann::ordered_json request)
{
    if (!m_pStream)
        return 0;
    nlohmann::ordered_json message = {{"id", ++m_ullLastID}};
    message.update(request);
    m_pStream->append(jsonLine(message));
    m_pStream->flush();
    return m_ullLastID;
}

size_t CJsonLinesClient::waiting() const
{
    return m_pStream ? m_pStream->waiting() : 0;
}

namespace
{
using Clock = std::chrono::steady_clock;

bool waitFor(int nFd, short nEvents, Clock::time_point limit, std::string& strError)
{
    pollfd wait = {nFd, nEvents, 0};
    for (;;)
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now());
        const int nReady = ::poll(&wait, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        if (nReady > 0)
            return true;
        if (nReady == 0)
        {
            strError = "there was no answer in time";
            return false;
        }
        if (errno != EINTR)
        {
            strError = errnoText(errno);
            return false;
        }
    }
}

bool isAnswerTo(const nlohmann::json& message, const nlohmann::ordered_json& request)
{
    const auto itID = request.find("id");
    const auto itAnswered = message.find("id");
    return message.contains("ok") &&
           (itID == request.end() || (itAnswered != message.end() && *itAnswered == nlohmann::json(*itID)));
}
} // namespace

bool askJsonLines(const std::string& strPath, const nlohmann::ordered_json& request, std::chrono::milliseconds limit,
                  nlohmann::json& answer, std::string& strError)
{
    const Clock::time_point end = Clock::now() + limit;
    CSocketFd fd = connectTo(strPath, strError);
    if (!fd.isOpen())
        return false;
    CJsonLinesStream stream(std::move(fd), CJsonLinesClient::MAX_LINE);
    stream.append(jsonLine(request));
    std::string strLine;
    for (;;)
    {
        stream.flush();
        stream.read();
        while (stream.takeLine(strLine))
        {
            if (!parseJsonObject(strLine, answer, strError))
                return false;
            if (isAnswerTo(answer, request))
                return true;
        }
        if (stream.hasEnded())
        {
            strError = "the server ended the connection without an answer";
            return false;
        }
        const short nEvents = stream.waiting() > 0 ? POLLIN | POLLOUT : POLLIN;
        if (!waitFor(stream.descriptor(), nEvents, end, strError))
            return false;
    }
}
