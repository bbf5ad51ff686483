// Writes log lines on a thread of their own, so that a log that cannot be written holds up nobody.
#include "BackgroundSink.h"

#include "LogFileSink.h"

#include <fmt/format.h>
#include <spdlog/details/log_msg_buffer.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <utility>

struct CBackgroundSink::CState
{
    explicit CState(spdlog::sink_ptr pOther) : m_pSink(std::move(pOther)) {}

    void write(const spdlog::details::log_msg& message);
    void write(spdlog::level::level_enum eLogged, spdlog::level::level_enum eLevel, const std::string& strText);
    void writeLeftOut(uint64_t ullLines);

    const spdlog::sink_ptr m_pSink;
    std::atomic<size_t> m_nWaiting = 0; // bytes
    std::atomic<uint64_t> m_ullLeftOut = 0;
    std::chrono::steady_clock::time_point m_nextComplaint;
};

void CBackgroundSink::CState::write(const spdlog::details::log_msg& message)
{
    try
    {
        m_pSink->log(message);
    }
    catch (const std::exception& exception)
    {
        const auto now = std::chrono::steady_clock::now();
        if (now >= m_nextComplaint)
        {
            m_nextComplaint = now + std::chrono::seconds(1);
            std::fprintf(stderr, "zelmedia-driver: %s\n", exception.what());
        }
    }
}

void CBackgroundSink::CState::write(spdlog::level::level_enum eLogged, spdlog::level::level_enum eLevel,
                                    const std::string& strText)
{
    if (eLevel >= eLogged)
        write({"", eLevel, strText});
}

void CBackgroundSink::CState::writeLeftOut(uint64_t ullLines)
{
    if (ullLines > 0)
        write(spdlog::level::warn, spdlog::level::warn,
              fmt::format("left out {} lines of the log, which could not be written in time", ullLines));
}

CBackgroundSink::CBackgroundSink(spdlog::sink_ptr pSink, std::chrono::milliseconds patience)
    : m_pState(std::make_shared<CState>(std::move(pSink))), m_worker(patience)
{
}

CBackgroundSink::~CBackgroundSink()
{
    finish();
}

bool CBackgroundSink::start(std::string& strError)
{
    return m_worker.start("log", strError);
}

void CBackgroundSink::log(const spdlog::details::log_msg& message)
{
    CState& state = *m_pState;
    const size_t nBytes = sizeof(spdlog::details::log_msg_buffer) + message.payload.size();
    if (state.m_nWaiting.fetch_add(nBytes) + nBytes > MAX_BYTES)
    {
        state.m_nWaiting -= nBytes;
        ++state.m_ullLeftOut;
        return;
    }
    m_worker.post([pState = m_pState, ullLeftOut = state.m_ullLeftOut.exchange(0), nBytes,
                   line = spdlog::details::log_msg_buffer(message)] {
        pState->writeLeftOut(ullLeftOut);
        pState->write(line);
        pState->m_nWaiting -= nBytes;
    });
}

void CBackgroundSink::set_pattern(const std::string& strPattern)
{
    m_pState->m_pSink->set_pattern(strPattern);
}

void CBackgroundSink::set_formatter(std::unique_ptr<spdlog::formatter> pFormatter)
{
    m_pState->m_pSink->set_formatter(std::move(pFormatter));
}

void CBackgroundSink::reopen(spdlog::level::level_enum eLevel)
{
    const auto pFile = std::dynamic_pointer_cast<CLogFileSink>(m_pState->m_pSink);
    if (!pFile)
        return;
    m_worker.post([pState = m_pState, pFile, eLevel] {
        std::string strError;
        if (!pFile->open(strError))
            pState->write(eLevel, spdlog::level::err, strError + "; the log goes on in the old one");
        else
            pState->write(eLevel, spdlog::level::info, "the log file was opened anew");
    });
}

bool CBackgroundSink::finish()
{
    if (const uint64_t ullLeftOut = m_pState->m_ullLeftOut.exchange(0))
        m_worker.post([pState = m_pState, ullLeftOut] { pState->writeLeftOut(ullLeftOut); });
    return m_worker.finish();
}
