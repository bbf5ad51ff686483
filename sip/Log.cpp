// Sets up the log of the signalling daemon.
#include "Log.h"

#include <nlohmann/json.hpp>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <exception>
#include <memory>

namespace
{
// One object per line, so that any text can be read back.
class CJsonFormatter : public spdlog::formatter
{
public:
    void format(const spdlog::details::log_msg& message, spdlog::memory_buf_t& line) override
    {
        const auto nMs = std::chrono::duration_cast<std::chrono::milliseconds>(message.time.time_since_epoch()).count();
        const spdlog::string_view_t level = spdlog::level::to_string_view(message.level);
        nlohmann::ordered_json object;
        object["time"] = nMs;
        object["level"] = std::string(level.data(), level.size());
        object["text"] = std::string(message.payload.data(), message.payload.size());
        addCall(object);
        std::string strLine = object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
        line.append(strLine.data(), strLine.data() + strLine.size());
    }
    std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<CJsonFormatter>(); }

private:
    // Lines about calls begin with "call ID leg N: ".
    static void addCall(nlohmann::ordered_json& object)
    {
        const std::string strText = object["text"];
        char szCall[32] = "";
        unsigned uLeg = 0;
        int nUsed = 0;
        if (std::sscanf(strText.c_str(), "call %31s leg %u: %n", szCall, &uLeg, &nUsed) == 2 && nUsed > 0)
        {
            object["call"] = szCall;
            object["leg"] = uLeg;
            object["text"] = strText.substr(static_cast<size_t>(nUsed));
        }
    }
};
} // namespace

bool setUpLog(const COptions& options, std::string& strError)
{
    try
    {
        spdlog::sink_ptr pSink;
        if (options.m_strLogFile.empty())
            pSink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
        else
            pSink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(options.m_strLogFile);
        auto pLogger = std::make_shared<spdlog::logger>("zelmedia-sip", std::move(pSink));
        pLogger->set_level(spdlog::level::from_str(options.m_strLogLevel));
        pLogger->flush_on(spdlog::level::trace);
        if (options.m_bLogJson)
            pLogger->set_formatter(std::make_unique<CJsonFormatter>());
        else
            pLogger->set_pattern("%Y-%m-%d %H:%M:%S.%e %l: %v");
        spdlog::set_default_logger(std::move(pLogger));
        return true;
    }
    catch (const std::exception& exception)
    {
        strError = exception.what();
        return false;
    }
}
