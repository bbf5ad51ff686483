// Writes log lines on a thread of their own, so that a log that cannot be written holds up nobody.
#ifndef DRIVER_BACKGROUND_SINK_H
#define DRIVER_BACKGROUND_SINK_H

#include "Worker.h"

#include <spdlog/sinks/sink.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

// The lines come into the other sink in the order in which they were logged. As many as MAX_BYTES hold wait; those
// that come while there is no room are left out, and the next one has a line before it that counts them.
class CBackgroundSink : public spdlog::sinks::sink
{
public:
    static constexpr size_t MAX_BYTES = size_t{4} << 20;

    // The other sink is used on the thread only.
    explicit CBackgroundSink(spdlog::sink_ptr pSink, std::chrono::milliseconds patience = CWorker::PATIENCE);

    // Writes what waits, and gives up where that takes too long.
    ~CBackgroundSink() override;

    bool start(std::string& strError);

    void log(const spdlog::details::log_msg& message) override;
    void flush() override {}
    void set_pattern(const std::string& strPattern) override;
    void set_formatter(std::unique_ptr<spdlog::formatter> pFormatter) override;

    // Opens the other sink anew if it is a file, behind the lines that were logged before. A line says so, if lines
    // of its importance are logged at the level.
    void reopen(spdlog::level::level_enum eLevel);

    // Waits until all lines are written. False when that takes too long.
    bool finish();

private:
    struct CState; // which the thread shares: it may outlive the sink

    const std::shared_ptr<CState> m_pState;
    CWorker m_worker;
};

#endif
