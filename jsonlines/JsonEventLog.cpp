// The events of one subject, numbered, the last of them kept so that they can be asked for again.
#include "JsonEventLog.h"

#include "JsonText.h"

#include <algorithm>
#include <utility>

const std::string& CJsonEventLog::add(nlohmann::ordered_json event)
{
    event["number"] = m_ullLast + 1;
    m_vLines.push_back(jsonLine(event));
    ++m_ullLast;
    if (m_vLines.size() > std::max<size_t>(m_nKeep, 1))
        m_vLines.pop_front();
    return m_vLines.back();
}

nlohmann::ordered_json CJsonEventLog::after(uint64_t ullNumber) const
{
    nlohmann::ordered_json events = nlohmann::ordered_json::array();
    uint64_t ullThis = m_ullLast - m_vLines.size();
    for (const std::string& strLine : m_vLines)
        if (++ullThis > ullNumber)
            events.push_back(nlohmann::ordered_json::parse(strLine));
    return events;
}
