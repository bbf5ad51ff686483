// Sets up the driver's log.
#include "Log.h"

#include "BackgroundSink.h"
#include "LogFileSink.h"

#include <fmt/chrono.h>
#include <nlohmann/json.hpp>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <memory>

namespace
{
std::string utcTime(spdlog::log_clock::time_point time)
{
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(spdlog::log_clock::to_time_t(time)),
                       ms.count() % 1000);
}

class CJsonFormatter : public spdlog::formatter
{
public:
    void format(const spdlog::details::log_msg& message, spdlog::memory_buf_t& line) override
    {
        const auto level = spdlog::level::to_string_view(message.level);
        const nlohmann::ordered_json object = {
            {"time", utcTime(message.time)},
            {"level", std::string(level.data(), level.size())},
            {"message", std::string(message.payload.data(), message.payload.size())},
        };
        // Bytes that are not UTF-8 become U+FFFD: every line can be read back.
        std::string strLine = object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
        strLine += '\n';
        line.append(strLine.data(), strLine.data() + strLine.size());
    }

    std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<CJsonFormatter>(); }
};

// Null, with the reason in strError, when the log file cannot be opened.
spdlog::sink_ptr makeSink(const COptions& options, std::string& strError)
{
    if (options.m_strLogFile.empty())
        return std::make_shared<spdlog::sinks::stderr_sink_mt>();
    auto pFile = std::make_shared<CLogFileSink>(options.m_strLogFile);
    return pFile->open(strError) ? pFile : nullptr;
}
} // namespace

bool setUpLog(const COptions& options, std::string& strError)
{
    spdlog::sink_ptr pOther = makeSink(options, strError);
    if (!pOther)
        return false;
    const auto pSink = std::make_shared<CBackgroundSink>(std::move(pOther));
    if (!pSink->start(strError))
        return false;
    auto pLogger = std::make_shared<spdlog::logger>("zelmedia-driver", pSink);
    pLogger->set_level(options.m_eLogLevel);
    if (options.m_eLogFormat == ELogFormat::Json)
        pLogger->set_formatter(std::make_unique<CJsonFormatter>());
    else
        pLogger->set_pattern("%Y-%m-%d %H:%M:%S.%e %l: %v");
    spdlog::set_default_logger(std::move(pLogger));
    return true;
}

void reopenLog()
{
    for (const spdlog::sink_ptr& pSink : spdlog::default_logger()->sinks())
        if (const auto pBackground = std::dynamic_pointer_cast<CBackgroundSink>(pSink))
            pBackground->reopen(spdlog::default_logger()->level());
}

bool flushLog()
{
    bool bAll = true;
    for (const spdlog::sink_ptr& pSink : spdlog::default_logger()->sinks())
        if (const auto pBackground = std::dynamic_pointer_cast<CBackgroundSink>(pSink))
            bAll = pBackground->finish() && bAll;
    return bAll;
}
