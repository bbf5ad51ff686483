// What each request on the control socket does: one line of JSON in, one out.
#include "ControlRequests.h"

#include "Fields.h"
#include "Text.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <climits>
#include <exception>
#include <initializer_list>
#include <utility>

namespace
{
using nlohmann::ordered_json;

constexpr int64_t MAX_MS = 3600000;

// Names that come from clients need not be UTF-8.
std::string lineOf(const ordered_json& json)
{
    return json.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

ordered_json toJson(const CClientState& client)
{
    return {{"client", client.m_nConnectID},
            {"process", client.m_nProcessID},
            {"files", client.m_nFiles},
            {"streams", client.m_nStreams},
            {"waiting_events", client.m_nWaitingEvents}};
}

// Thousands of streams are listed between two media ticks: growing each object field by field would
// take several times as long.
ordered_json objectOf(std::initializer_list<std::pair<const char*, ordered_json>> fields)
{
    ordered_json json = ordered_json::object();
    auto& object = json.get_ref<ordered_json::object_t&>();
    object.reserve(fields.size());
    for (const auto& [pKey, value] : fields)
        object.emplace_back(pKey, value);
    return json;
}

ordered_json playOf(const CStreamState& stream)
{
    if (!stream.m_bPlaying)
        return nullptr;
    return objectOf({{"file", stream.m_strPlayPath},
                     {"position", stream.m_nPlayPosition},
                     {"end", stream.m_nPlayEnd},
                     {"sequence", stream.m_nPlaySequence}});
}

ordered_json recordOf(const CStreamState& stream)
{
    if (!stream.m_bRecording)
        return nullptr;
    return objectOf({{"file", stream.m_strRecordPath},
                     {"max_samples", stream.m_ullMaxSamples},
                     {"sequence", stream.m_nRecordSequence}});
}

ordered_json toJson(const CStreamState& stream)
{
    return objectOf({{"stream", stream.m_nID},
                     {"client", stream.m_nConnectID},
                     {"call", stream.m_strCallID},
                     {"leg", stream.m_nLegID},
                     {"channel", stream.m_pChannelKind},
                     {"hung_up", stream.m_bHungUp},
                     {"play", playOf(stream)},
                     {"record", recordOf(stream)},
                     {"recorded", stream.m_ullRecorded},
                     {"record_status", stream.m_nRecordStatus}});
}

bool hasNoFields(const nlohmann::json& fields, std::string& strError)
{
    return CFieldReader(fields).finish(strError);
}
} // namespace

const CControlRequests::CEntry CControlRequests::REQUESTS[] = {
    {"clients", "", "lists the clients", false, &CControlRequests::clients},
    {"streams", "[call=CALLID]", "lists the streams, of all calls or of one", false, &CControlRequests::streams},
    {"stats", "", "shows the counters", false, &CControlRequests::stats},
    {"faults", "", "lists the fault rules", false, &CControlRequests::faults},
    {"fault", "do=FAULT on=WHAT [nth=N] [count=N] [ms=N] [status=N] [call=CALLID]", "adds a fault rule", true,
     &CControlRequests::fault},
    {"unfault", "[id=N]", "removes a fault rule, or all", true, &CControlRequests::unfault},
    {"hangup", "call=CALLID [leg=N]", "hangs a call up, on one leg or on all", true, &CControlRequests::hangUp},
    {"drop", "client=N", "drops a client", true, &CControlRequests::drop},
    {"freeze", "[ms=N]", "stops everything but this socket, for a time or until thaw", true, &CControlRequests::freeze},
    {"thaw", "", "ends a freeze", true, &CControlRequests::thaw},
    {"die", "", "kills the driver as a crash would", true, &CControlRequests::die},
    {"ping", "", "does nothing", false, &CControlRequests::ping},
    {"help", "", "lists the requests", false, &CControlRequests::help},
};

const CControlRequests::CEntry* CControlRequests::findRequest(const std::string& strName)
{
    const auto* pEntry = std::find_if(std::begin(REQUESTS), std::end(REQUESTS),
                                      [&strName](const CEntry& entry) { return strName == entry.m_pName; });
    return pEntry == std::end(REQUESTS) ? nullptr : pEntry;
}

CControlRequests::CControlRequests(CDriverControl& driver) : m_driver(driver) {}

std::string CControlRequests::handle(const std::string& strLine)
{
    std::string strError;
    try
    {
        ordered_json answer = {{"ok", true}};
        if (execute(strLine, answer, strError))
            return lineOf(answer);
    }
    catch (const std::exception& exception)
    {
        strError = exception.what(); // out of memory
    }
    return lineOf({{"ok", false}, {"error", strError}});
}

bool CControlRequests::execute(const std::string& strLine, ordered_json& answer, std::string& strError)
{
    nlohmann::json request = nlohmann::json::parse(strLine, nullptr, false);
    if (!request.is_object())
    {
        strError = "a request is an object of JSON, alone on its line";
        return false;
    }
    const auto itName = request.find("request");
    const CEntry* pEntry =
        itName != request.end() && itName->is_string() ? findRequest(itName->get<std::string>()) : nullptr;
    if (pEntry == nullptr)
    {
        strError = "there is no such request; \"help\" lists them";
        return false;
    }
    request.erase(itName);
    if (!(this->*pEntry->m_pFunction)(request, answer, strError))
        return false;
    if (pEntry->m_bChanges)
        spdlog::info("control: {} {}", pEntry->m_pName, printable(request.dump()));
    return true;
}

bool CControlRequests::clients(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    if (!hasNoFields(fields, strError))
        return false;
    ordered_json& clients = answer["clients"] = ordered_json::array();
    for (const CClientState& client : m_driver.clients())
        clients.push_back(toJson(client));
    return true;
}

bool CControlRequests::streams(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    CFieldReader reader(fields);
    const auto strCallID = reader.text("call");
    if (!reader.finish(strError))
        return false;
    ordered_json& streams = answer["streams"] = ordered_json::array();
    for (const CStreamState& stream : m_driver.streams())
        if (!strCallID || stream.m_strCallID == *strCallID)
            streams.push_back(toJson(stream));
    return true;
}

bool CControlRequests::stats(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    if (!hasNoFields(fields, strError))
        return false;
    answer["stats"] = m_driver.statistics().toJson(std::chrono::steady_clock::now());
    return true;
}

bool CControlRequests::faults(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    if (!hasNoFields(fields, strError))
        return false;
    answer["faults"] = m_driver.faults().toJson();
    return true;
}

bool CControlRequests::fault(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    const auto nID = m_driver.faults().add(fields, strError);
    answer["id"] = nID.value_or(0);
    return nID.has_value();
}

bool CControlRequests::unfault(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    CFieldReader reader(fields);
    const auto nID = reader.number("id", 1, INT_MAX);
    if (!reader.finish(strError))
        return false;
    if (!nID)
    {
        answer["removed"] = m_driver.faults().removeAll();
        return true;
    }
    answer["removed"] = 1;
    strError = fmt::format("there is no fault rule {}", *nID);
    return m_driver.faults().remove(static_cast<int>(*nID));
}

bool CControlRequests::hangUp(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    CFieldReader reader(fields);
    const auto strCallID = reader.text("call");
    const auto nLegID = reader.number("leg", 0, UINT32_MAX);
    if (!strCallID)
        reader.fail("\"call\" is missing");
    if (!reader.finish(strError))
        return false;
    const size_t nStreams =
        m_driver.hangUp(*strCallID, nLegID ? std::optional(static_cast<uint32_t>(*nLegID)) : std::nullopt);
    answer["streams"] = nStreams;
    strError = fmt::format("there is no stream on call id \"{}\"{}", printable(*strCallID),
                           nLegID ? fmt::format(", leg {}", *nLegID) : "");
    return nStreams > 0;
}

bool CControlRequests::drop(const nlohmann::json& fields, ordered_json&, std::string& strError)
{
    CFieldReader reader(fields);
    const auto nConnectID = reader.number("client", 1, INT_MAX);
    if (!nConnectID)
        reader.fail("\"client\" is missing");
    if (!reader.finish(strError))
        return false;
    strError = fmt::format("there is no client {}", *nConnectID);
    return m_driver.dropClient(static_cast<int>(*nConnectID));
}

bool CControlRequests::freeze(const nlohmann::json& fields, ordered_json&, std::string& strError)
{
    CFieldReader reader(fields);
    const auto nMs = reader.number("ms", 1, MAX_MS);
    if (!reader.finish(strError))
        return false;
    m_driver.freeze(nMs ? std::optional(std::chrono::milliseconds(*nMs)) : std::nullopt);
    return true;
}

bool CControlRequests::thaw(const nlohmann::json& fields, ordered_json&, std::string& strError)
{
    if (!hasNoFields(fields, strError))
        return false;
    m_driver.thaw();
    return true;
}

bool CControlRequests::die(const nlohmann::json& fields, ordered_json&, std::string& strError)
{
    if (!hasNoFields(fields, strError))
        return false;
    m_driver.die();
    return true;
}

bool CControlRequests::ping(const nlohmann::json& fields, ordered_json&, std::string& strError)
{
    return hasNoFields(fields, strError);
}

bool CControlRequests::help(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    if (!hasNoFields(fields, strError))
        return false;
    for (const CEntry& entry : REQUESTS)
    {
        const std::string strUse = *entry.m_pFields == '\0' ? "" : fmt::format(" {}", entry.m_pFields);
        answer["requests"][entry.m_pName + strUse] = entry.m_pHelp;
    }
    return true;
}
