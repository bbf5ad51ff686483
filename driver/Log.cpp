// Sets up the driver's log.
#include "Log.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <memory>

bool SetUpLog(const COptions& options, std::string& strError)
{
    try
    {
        spdlog::sink_ptr pSink;
        if (options.m_strLogFile.empty())
        {
            pSink = std::make_shared<spdlog::sinks::stderr_sink_st>();
        }
        else
        {
            pSink = std::make_shared<spdlog::sinks::basic_file_sink_st>(options.m_strLogFile);
        }
        auto pLogger = std::make_shared<spdlog::logger>("zelmedia-driver", std::move(pSink));
        pLogger->set_level(options.m_eLogLevel);
        pLogger->flush_on(spdlog::level::trace);
        pLogger->set_pattern("%Y-%m-%d %H:%M:%S.%e %l: %v");
        spdlog::set_default_logger(std::move(pLogger));
        return true;
    }
    catch (const spdlog::spdlog_ex& exception)
    {
        strError = exception.what();
        return false;
    }
}
