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

constexpr std::int64_t MAX_MS = 3600000;

// Names that come from clients need not be UTF-8.
std::string LineOf(const ordered_json& json)
{
    return json.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

ordered_json ToJson(const CClientState& client)
{
    return {{"client", client.m_nConnectID},
            {"process", client.m_nProcessID},
            {"files", client.m_nFiles},
            {"streams", client.m_nStreams},
            {"waiting_events", client.m_nWaitingEvents}};
}

// Thousands of streams are listed between two media ticks: growing each object field by field would
// take several times as long.
ordered_json ObjectOf(std::initializer_list<std::pair<const char*, ordered_json>> fields)
{
    ordered_json json = ordered_json::object();
    auto& object = json.get_ref<ordered_json::object_t&>();
    object.reserve(fields.size());
    for (const auto& [pKey, value] : fields)
    {
        object.emplace_back(pKey, value);
    }
    return json;
}

ordered_json PlayOf(const CStreamState& stream)
{
    if (!stream.m_bPlaying)
    {
        return nullptr;
    }
    return ObjectOf({{"file", stream.m_strPlayPath},
                     {"position", stream.m_nPlayPosition},
                     {"end", stream.m_nPlayEnd},
                     {"sequence", stream.m_nPlaySequence}});
}

ordered_json RecordOf(const CStreamState& stream)
{
    if (!stream.m_bRecording)
    {
        return nullptr;
    }
    return ObjectOf({{"file", stream.m_strRecordPath},
                     {"max_samples", stream.m_ullMaxSamples},
                     {"sequence", stream.m_nRecordSequence}});
}

ordered_json ToJson(const CStreamState& stream)
{
    return ObjectOf({{"stream", stream.m_nID},
                     {"client", stream.m_nConnectID},
                     {"call", stream.m_strCallID},
                     {"leg", stream.m_nLegID},
                     {"channel", stream.m_pChannelKind},
                     {"hung_up", stream.m_bHungUp},
                     {"play", PlayOf(stream)},
                     {"record", RecordOf(stream)},
                     {"recorded", stream.m_ullRecorded},
                     {"record_status", stream.m_nRecordStatus}});
}

bool HasNoFields(const nlohmann::json& fields, std::string& strError)
{
    return CFieldReader(fields).Finish(strError);
}
} // namespace

const CControlRequests::CEntry CControlRequests::REQUESTS[] = {
    {"clients", "", "lists the clients", false, &CControlRequests::Clients},
    {"streams", "[call=CALLID]", "lists the streams, of all calls or of one", false, &CControlRequests::Streams},
    {"stats", "", "shows the counters", false, &CControlRequests::Stats},
    {"faults", "", "lists the fault rules", false, &CControlRequests::Faults},
    {"fault", "do=FAULT on=WHAT [nth=N] [count=N] [ms=N] [status=N] [call=CALLID]", "adds a fault rule", true,
     &CControlRequests::Fault},
    {"unfault", "[id=N]", "removes a fault rule, or all", true, &CControlRequests::Unfault},
    {"hangup", "call=CALLID [leg=N]", "hangs a call up, on one leg or on all", true, &CControlRequests::HangUp},
    {"drop", "client=N", "drops a client", true, &CControlRequests::Drop},
    {"freeze", "[ms=N]", "stops everything but this socket, for a time or until thaw", true, &CControlRequests::Freeze},
    {"thaw", "", "ends a freeze", true, &CControlRequests::Thaw},
    {"die", "", "kills the driver as a crash would", true, &CControlRequests::Die},
    {"ping", "", "does nothing", false, &CControlRequests::Ping},
    {"help", "", "lists the requests", false, &CControlRequests::Help},
};

const CControlRequests::CEntry* CControlRequests::FindRequest(const std::string& strName)
{
    const auto* pEntry = std::find_if(std::begin(REQUESTS), std::end(REQUESTS),
                                      [&strName](const CEntry& entry) { return strName == entry.m_pName; });
    return pEntry == std::end(REQUESTS) ? nullptr : pEntry;
}

CControlRequests::CControlRequests(CDriverControl& driver) : m_driver(driver) {}

std::string CControlRequests::Handle(const std::string& strLine)
{
    std::string strError;
    try
    {
        ordered_json answer = {{"ok", true}};
        if (Execute(strLine, answer, strError))
        {
            return LineOf(answer);
        }
    }
    catch (const std::exception& exception)
    {
        strError = exception.what(); // out of memory
    }
    return LineOf({{"ok", false}, {"error", strError}});
}

bool CControlRequests::Execute(const std::string& strLine, ordered_json& answer, std::string& strError)
{
    nlohmann::json request = nlohmann::json::parse(strLine, nullptr, false);
    if (!request.is_object())
    {
        strError = "a request is an object of JSON, alone on its line";
        return false;
    }
    const auto itName = request.find("request");
    const CEntry* pEntry =
        itName != request.end() && itName->is_string() ? FindRequest(itName->get<std::string>()) : nullptr;
    if (pEntry == nullptr)
    {
        strError = "there is no such request; \"help\" lists them";
        return false;
    }
    request.erase(itName);
    if (!(this->*pEntry->m_pFunction)(request, answer, strError))
    {
        return false;
    }
    if (pEntry->m_bChanges)
    {
        spdlog::info("control: {} {}", pEntry->m_pName, Printable(request.dump()));
    }
    return true;
}

bool CControlRequests::Clients(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    if (!HasNoFields(fields, strError))
    {
        return false;
    }
    ordered_json& clients = answer["clients"] = ordered_json::array();
    for (const CClientState& client : m_driver.Clients())
    {
        clients.push_back(ToJson(client));
    }
    return true;
}

bool CControlRequests::Streams(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    CFieldReader reader(fields);
    const auto strCallID = reader.Text("call");
    if (!reader.Finish(strError))
    {
        return false;
    }
    ordered_json& streams = answer["streams"] = ordered_json::array();
    for (const CStreamState& stream : m_driver.Streams())
    {
        if (!strCallID || stream.m_strCallID == *strCallID)
        {
            streams.push_back(ToJson(stream));
        }
    }
    return true;
}

bool CControlRequests::Stats(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    if (!HasNoFields(fields, strError))
    {
        return false;
    }
    answer["stats"] = m_driver.Statistics().ToJson(std::chrono::steady_clock::now());
    return true;
}

bool CControlRequests::Faults(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    if (!HasNoFields(fields, strError))
    {
        return false;
    }
    answer["faults"] = m_driver.Faults().ToJson();
    return true;
}

bool CControlRequests::Fault(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    const auto nID = m_driver.Faults().Add(fields, strError);
    answer["id"] = nID.value_or(0);
    return nID.has_value();
}

bool CControlRequests::Unfault(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    CFieldReader reader(fields);
    const auto nID = reader.Number("id", 1, INT_MAX);
    if (!reader.Finish(strError))
    {
        return false;
    }
    if (!nID)
    {
        answer["removed"] = m_driver.Faults().RemoveAll();
        return true;
    }
    answer["removed"] = 1;
    strError = fmt::format("there is no fault rule {}", *nID);
    return m_driver.Faults().Remove(static_cast<int>(*nID));
}

bool CControlRequests::HangUp(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    CFieldReader reader(fields);
    const auto strCallID = reader.Text("call");
    const auto nLegID = reader.Number("leg", 0, UINT32_MAX);
    if (!strCallID)
    {
        reader.Fail("\"call\" is missing");
    }
    if (!reader.Finish(strError))
    {
        return false;
    }
    const std::size_t nStreams =
        m_driver.HangUp(*strCallID, nLegID ? std::optional(static_cast<std::uint32_t>(*nLegID)) : std::nullopt);
    answer["streams"] = nStreams;
    strError = fmt::format("there is no stream on call id \"{}\"{}", Printable(*strCallID),
                           nLegID ? fmt::format(", leg {}", *nLegID) : "");
    return nStreams > 0;
}

bool CControlRequests::Drop(const nlohmann::json& fields, ordered_json&, std::string& strError)
{
    CFieldReader reader(fields);
    const auto nConnectID = reader.Number("client", 1, INT_MAX);
    if (!nConnectID)
    {
        reader.Fail("\"client\" is missing");
    }
    if (!reader.Finish(strError))
    {
        return false;
    }
    strError = fmt::format("there is no client {}", *nConnectID);
    return m_driver.DropClient(static_cast<int>(*nConnectID));
}

bool CControlRequests::Freeze(const nlohmann::json& fields, ordered_json&, std::string& strError)
{
    CFieldReader reader(fields);
    const auto nMs = reader.Number("ms", 1, MAX_MS);
    if (!reader.Finish(strError))
    {
        return false;
    }
    m_driver.Freeze(nMs ? std::optional(std::chrono::milliseconds(*nMs)) : std::nullopt);
    return true;
}

bool CControlRequests::Thaw(const nlohmann::json& fields, ordered_json&, std::string& strError)
{
    if (!HasNoFields(fields, strError))
    {
        return false;
    }
    m_driver.Thaw();
    return true;
}

bool CControlRequests::Die(const nlohmann::json& fields, ordered_json&, std::string& strError)
{
    if (!HasNoFields(fields, strError))
    {
        return false;
    }
    m_driver.Die();
    return true;
}

bool CControlRequests::Ping(const nlohmann::json& fields, ordered_json&, std::string& strError)
{
    return HasNoFields(fields, strError);
}

bool CControlRequests::Help(const nlohmann::json& fields, ordered_json& answer, std::string& strError)
{
    if (!HasNoFields(fields, strError))
    {
        return false;
    }
    for (const CEntry& entry : REQUESTS)
    {
        const std::string strUse = *entry.m_pFields == '\0' ? "" : fmt::format(" {}", entry.m_pFields);
        answer["requests"][entry.m_pName + strUse] = entry.m_pHelp;
    }
    return true;
}
