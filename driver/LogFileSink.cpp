// Writes log lines into a file that can be opened anew.
#include "LogFileSink.h"

#include "Text.h"

#include <fcntl.h>

#include <cerrno>

CLogFileSink::CLogFileSink(std::string strPath) : m_strPath(std::move(strPath)) {}

bool CLogFileSink::open(std::string& strError)
{
    // Neither a pipe without reader nor one that is full may hold up the driver.
    CFd fd(::open(m_strPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666));
    if (!fd.isOpen())
    {
        strError = "the log file \"" + m_strPath + "\" cannot be opened: " + errnoText(errno);
        return false;
    }
    const std::lock_guard<std::mutex> hold(mutex_);
    m_fd = std::move(fd);
    m_bTorn = false;
    return true;
}

void CLogFileSink::sink_it_(const spdlog::details::log_msg& message)
{
    spdlog::memory_buf_t line;
    if (m_bTorn)
        line.push_back('\n');
    formatter_->format(message, line);
    // One write for one line: lines of several processes do not mix.
    size_t nWritten = 0;
    while (nWritten < line.size())
    {
        const ssize_t nResult = ::write(m_fd.get(), line.data() + nWritten, line.size() - nWritten);
        if (nResult > 0)
        {
            nWritten += static_cast<size_t>(nResult);
        }
        else if (nResult == 0 || errno != EINTR)
        {
            m_bTorn = m_bTorn || nWritten > 0;
            spdlog::throw_spdlog_ex("the log file \"" + m_strPath + "\" cannot be written", errno);
        }
    }
    m_bTorn = false;
}
