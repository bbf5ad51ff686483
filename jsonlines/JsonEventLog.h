// The events of one subject, numbered, the last of them kept so that they can be asked for again.
#ifndef JSON_EVENT_LOG_H
#define JSON_EVENT_LOG_H

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

// One for each leg of a call. Not thread-safe.
class CJsonEventLog
{
public:
    explicit CJsonEventLog(size_t nKeep = 256) : m_nKeep(nKeep) {}

    // Gives the event, an object, the next number, from 1 on, as "number", and keeps it. Returns its line, as
    // CJsonLinesServer::sendLine takes it; good until the next add.
    const std::string& add(nlohmann::ordered_json event);

    // The number of the newest event; 0 before the first.
    uint64_t last() const { return m_ullLast; }

    // An array of the events with higher numbers, as far as they are still kept, the oldest first.
    nlohmann::ordered_json after(uint64_t ullNumber) const;

private:
    const size_t m_nKeep;
    uint64_t m_ullLast = 0;
    std::deque<std::string> m_vLines; // as text they take the least room
};

#endif
