// Rules by which the driver misbehaves on purpose, so that applications can be tested against it.
#include "FaultRules.h"

#include "Fields.h"
#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

namespace
{
constexpr int64_t MAX_TIMES = 1000000000;
constexpr int64_t MAX_MS = 3600000;

enum class EFault
{
    Refuse,
    Late,
    Twice,
    OldNumber,
    Drop,
    DropEvent,
    Status,
    Freeze,
    DropClient,
    Die
};

enum class ENeed
{
    No,
    May,
    Must
};
} // namespace

struct CFaultRules::CFaultKind
{
    const char* m_pName;
    EFault m_eFault;
    bool m_bOfCommands;
    bool m_bOfEvents;
    ENeed m_eMs = ENeed::No;
    ENeed m_eStatus = ENeed::No;
};

const CFaultRules::CFaultKind CFaultRules::KINDS[] = {
    {"refuse", EFault::Refuse, true, false},
    {"late", EFault::Late, true, true, ENeed::Must},
    {"twice", EFault::Twice, true, true},
    {"old-number", EFault::OldNumber, true, false},
    {"drop", EFault::Drop, true, false},
    {"drop-event", EFault::DropEvent, false, true},
    {"status", EFault::Status, false, true, ENeed::No, ENeed::Must},
    {"freeze", EFault::Freeze, true, false, ENeed::May},
    {"drop-client", EFault::DropClient, true, false},
    {"die", EFault::Die, true, false},
};

namespace
{
// A field that the kind of fault needs, may have or must not have.
template <typename T> void check(CFieldReader& fields, const char* pKey, ENeed eNeed, const std::optional<T>& value)
{
    if (eNeed == ENeed::Must && !value)
        fields.fail(fmt::format("\"{}\" is missing", pKey));
    else if (eNeed == ENeed::No && value)
        fields.fail(fmt::format("\"{}\" has no meaning for this fault", pKey));
}
} // namespace

const CFaultRules::CFaultKind* CFaultRules::findKind(const std::string& strName)
{
    const auto* pKind = std::find_if(std::begin(KINDS), std::end(KINDS),
                                     [&strName](const CFaultKind& kind) { return strName == kind.m_pName; });
    return pKind == std::end(KINDS) ? nullptr : pKind;
}

void CFaultRules::readTarget(CFieldReader& fields, CRule& rule)
{
    rule.m_strOn = fields.text("on").value_or("");
    const auto strCallID = fields.text("call");
    rule.m_strCallID = strCallID.value_or("");
    rule.m_pCommand = commandInfo(rule.m_strOn);
    const bool bAny = rule.m_strOn == "any";
    const bool bCommand = rule.m_pCommand != nullptr || (bAny && rule.m_pKind->m_bOfCommands);
    if (rule.m_strOn.empty())
        fields.fail("\"on\" is missing: a command, an event or \"any\"");
    else if (bCommand)
        rule.m_eTarget = ETarget::Commands;
    else if (rule.m_strOn == "play" || rule.m_strOn == "record")
        rule.m_eTarget = rule.m_strOn == "play" ? ETarget::Play : ETarget::Record;
    else if (rule.m_strOn == "event" || bAny)
        rule.m_eTarget = ETarget::Events;
    else
        fields.fail(fmt::format("there is no command or event \"{}\"", printable(rule.m_strOn)));
    if (bCommand ? !rule.m_pKind->m_bOfCommands : !rule.m_pKind->m_bOfEvents)
    {
        fields.fail(fmt::format("\"{}\" is for {}", rule.m_pKind->m_pName,
                                bCommand ? "events: play, record or any" : "commands"));
    }
    if (strCallID && strCallID->empty())
        fields.fail("\"call\" is empty");
    if (strCallID && rule.m_pCommand != nullptr && !namesStream(*rule.m_pCommand))
        fields.fail(fmt::format("\"{}\" is not of a call", rule.m_strOn));
}

void CFaultRules::readLimits(CFieldReader& fields, CRule& rule)
{
    const auto nth = fields.number("nth", 1, MAX_TIMES);
    const auto count = fields.number("count", 1, MAX_TIMES);
    const auto ms = fields.number("ms", 1, MAX_MS);
    const auto status = fields.number("status", INT32_MIN, INT32_MAX);
    check(fields, "ms", rule.m_pKind->m_eMs, ms);
    check(fields, "status", rule.m_pKind->m_eStatus, status);

    rule.m_ullFirst = static_cast<uint64_t>(nth.value_or(1));
    if (nth || count)
        rule.m_ullCount = static_cast<uint64_t>(count.value_or(1));
    if (ms)
        rule.m_time = std::chrono::milliseconds(*ms);
    if (status)
        rule.m_nStatus = static_cast<int32_t>(*status);
}

std::optional<int> CFaultRules::add(const nlohmann::json& rule, std::string& strError)
{
    if (!rule.is_object())
    {
        strError = "a fault rule is an object";
        return std::nullopt;
    }
    if (m_vRules.size() >= MAX_RULES || m_nNextID == std::numeric_limits<int>::max())
    {
        strError = "there are too many fault rules";
        return std::nullopt;
    }
    CFieldReader fields(rule);
    const auto strKind = fields.text("do");
    CRule added;
    added.m_pKind = findKind(strKind.value_or(""));
    if (added.m_pKind == nullptr)
    {
        fields.fail(strKind ? fmt::format("there is no fault \"{}\"", printable(*strKind)) : "\"do\" is missing");
        fields.finish(strError);
        return std::nullopt;
    }
    readTarget(fields, added);
    readLimits(fields, added);
    if (!fields.finish(strError))
        return std::nullopt;
    added.m_nID = m_nNextID++;
    m_vRules.push_back(std::move(added));
    return m_vRules.back().m_nID;
}

bool CFaultRules::remove(int nID)
{
    return std::erase_if(
               m_vRules, [nID](const CRule& rule) { return rule.m_nID == nID; }) > 0;
}

size_t CFaultRules::removeAll()
{
    const size_t nCount = m_vRules.size();
    m_vRules.clear();
    return nCount;
}

nlohmann::ordered_json CFaultRules::toJson() const
{
    auto rules = nlohmann::ordered_json::array();
    for (const CRule& rule : m_vRules)
    {
        nlohmann::ordered_json fields = {{"id", rule.m_nID}, {"do", rule.m_pKind->m_pName}, {"on", rule.m_strOn}};
        if (!rule.m_strCallID.empty())
            fields["call"] = rule.m_strCallID;
        if (rule.m_ullFirst != 1)
            fields["nth"] = rule.m_ullFirst;
        if (rule.m_ullCount)
            fields["count"] = *rule.m_ullCount;
        if (rule.m_time)
            fields["ms"] = rule.m_time->count();
        if (rule.m_nStatus)
            fields["status"] = *rule.m_nStatus;
        fields["matched"] = rule.m_ullMatched;
        fields["acted"] = rule.m_ullActed;
        rules.push_back(std::move(fields));
    }
    return rules;
}

bool CFaultRules::isItsTurn(CRule& rule)
{
    ++rule.m_ullMatched;
    if (rule.m_ullMatched < rule.m_ullFirst || (rule.m_ullCount && rule.m_ullActed >= *rule.m_ullCount))
        return false;
    ++rule.m_ullActed;
    return true;
}

CFaultAction CFaultRules::onCommand(MICMD micmd, const std::string& strCallID)
{
    CFaultAction action;
    bool bDrop = false;
    for (CRule& rule : m_vRules)
    {
        const bool bMatches = rule.m_eTarget == ETarget::Commands &&
                              (rule.m_pCommand == nullptr || rule.m_pCommand->m_micmd == micmd) &&
                              (rule.m_strCallID.empty() || rule.m_strCallID == strCallID);
        if (!bMatches || !isItsTurn(rule))
            continue;
        switch (rule.m_pKind->m_eFault)
        {
        case EFault::Refuse: action.m_bRefuse = true; break;
        case EFault::Late: action.m_delay = std::max(action.m_delay, *rule.m_time); break;
        case EFault::Twice: action.m_nAnswers = 2; break;
        case EFault::OldNumber: action.m_bOldNumber = true; break;
        case EFault::Drop: bDrop = true; break;
        case EFault::DropClient: action.m_bDropClient = true; break;
        case EFault::Die: action.m_bDie = true; break;
        case EFault::Freeze:
            // Without end is longer than any time.
            action.m_freezeFor = !action.m_bFreeze                   ? rule.m_time
                                 : action.m_freezeFor && rule.m_time ? std::max(action.m_freezeFor, rule.m_time)
                                                                     : std::nullopt;
            action.m_bFreeze = true;
            break;
        case EFault::DropEvent:
        case EFault::Status: break;
        }
    }
    if (bDrop)
        action.m_nAnswers = 0;
    return action;
}

CEventFault CFaultRules::onEvent(bool bRecord, const std::string& strCallID)
{
    CEventFault fault;
    bool bDrop = false;
    for (CRule& rule : m_vRules)
    {
        const bool bMatches =
            (rule.m_eTarget == ETarget::Events || rule.m_eTarget == (bRecord ? ETarget::Record : ETarget::Play)) &&
            (rule.m_strCallID.empty() || rule.m_strCallID == strCallID);
        if (!bMatches || !isItsTurn(rule))
            continue;
        switch (rule.m_pKind->m_eFault)
        {
        case EFault::Late: fault.m_delay = std::max(fault.m_delay, *rule.m_time); break;
        case EFault::Twice: fault.m_nEvents = 2; break;
        case EFault::DropEvent: bDrop = true; break;
        case EFault::Status: fault.m_nStatus = rule.m_nStatus; break;
        default: break;
        }
    }
    if (bDrop)
        fault.m_nEvents = 0;
    return fault;
}
