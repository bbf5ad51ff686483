// Writes log lines into a file that can be opened anew.
#ifndef DRIVER_LOG_FILE_SINK_H
#define DRIVER_LOG_FILE_SINK_H

#include "Fd.h"

#include <spdlog/sinks/base_sink.h>

#include <mutex>
#include <string>

class CLogFileSink : public spdlog::sinks::base_sink<std::mutex>
{
public:
    explicit CLogFileSink(std::string strPath);

    // Opens the file, or opens it anew, and makes it when it is missing. False, with the reason in
    // strError, when that fails; what was open stays in use.
    bool open(std::string& strError);

protected:
    // Throws spdlog_ex, which the logger reports on stderr, when the line cannot be written.
    void sink_it_(const spdlog::details::log_msg& message) override;
    void flush_() override {}

private:
    const std::string m_strPath;
    CFd m_fd;
    bool m_bTorn = false; // the last line could be written in part only
};

#endif
