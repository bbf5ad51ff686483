// What the socket of zelmedia-sip says, in the types of the public header.
#include "CallWire.h"

#include <cstdint>

namespace
{
constexpr size_t MAX_CALL_ID = 31; // what the media library takes
constexpr int MAX_SIP_STATUS = 699;

const nlohmann::json* find(const nlohmann::json& object, const char* pKey)
{
    const auto it = object.is_object() ? object.find(pKey) : object.end();
    return it == object.end() ? nullptr : &*it;
}

CC_CALL_STATE stateOf(const std::string& strState)
{
    return strState == "ringing"    ? CCCS_RINGING
           : strState == "dialing"  ? CCCS_DIALING
           : strState == "answered" ? CCCS_ANSWERED
           : strState == "held"     ? CCCS_HELD
           : strState == "ended"    ? CCCS_ENDED
                                    : CCCS_OFFERED;
}
} // namespace

std::string textOf(const nlohmann::json& object, const char* pKey)
{
    const nlohmann::json* pValue = find(object, pKey);
    return pValue != nullptr && pValue->is_string() ? pValue->get<std::string>() : std::string();
}

uint64_t numberOf(const nlohmann::json& object, const char* pKey, uint64_t ullOtherwise)
{
    const nlohmann::json* pValue = find(object, pKey);
    return pValue != nullptr && pValue->is_number_unsigned() ? pValue->get<uint64_t>() : ullOtherwise;
}

int statusCodeOf(const nlohmann::json& object)
{
    const uint64_t ullStatus = numberOf(object, "status");
    return ullStatus <= MAX_SIP_STATUS ? static_cast<int>(ullStatus) : 0;
}

bool flagOf(const nlohmann::json& object, const char* pKey)
{
    const nlohmann::json* pValue = find(object, pKey);
    return pValue != nullptr && pValue->is_boolean() && pValue->get<bool>();
}

std::optional<CLegKey> legKeyOf(const nlohmann::json& object)
{
    const std::string strCall = textOf(object, "call");
    const uint64_t ullLeg = numberOf(object, "leg", UINT64_MAX);
    if (strCall.empty() || strCall.size() > MAX_CALL_ID || ullLeg > UINT32_MAX)
        return std::nullopt;
    return CLegKey(strCall, static_cast<unsigned long>(ullLeg));
}

CZelCallInfo infoOf(const nlohmann::json& object, const CLegKey& key)
{
    CZelCallInfo info;
    info.m_strCallID = key.first;
    info.m_ulLegID = key.second;
    info.m_strFrom = textOf(object, "from");
    info.m_strTo = textOf(object, "to");
    info.m_strSipCallID = textOf(object, "sip_call_id");
    info.m_eState = stateOf(textOf(object, "state"));
    const nlohmann::json* pHeaders = find(object, "headers");
    if (pHeaders != nullptr && pHeaders->is_object())
        for (const auto& header : pHeaders->items())
            info.m_mapHeaders[header.key()] = textOf(*pHeaders, header.key().c_str());
    return info;
}

CC_END_REASON endReasonOf(const std::string& strReason)
{
    for (int n = CCER_FAILED; n < CCER_CONTROLLOST; ++n)
        if (strReason == CCENDREASONToString(static_cast<CC_END_REASON>(n)))
            return static_cast<CC_END_REASON>(n);
    return CCER_FAILED;
}

CC_DIGITS_END digitsEndOf(const std::string& strWhy)
{
    return strWhy == "max"          ? CCDE_MAX
           : strWhy == "terminator" ? CCDE_TERMINATOR
           : strWhy == "timeout"    ? CCDE_TIMEOUT
                                    : CCDE_ENDED;
}

CCSTATUS statusOf(const std::string& strErrorCode)
{
    if (strErrorCode == "no-such-call")
        return CCS_NOSUCHCALL;
    if (strErrorCode == "wrong-state" || strErrorCode == "exists")
        return CCS_WRONGSTATE;
    if (strErrorCode == "bad-request" || strErrorCode == "unknown-request")
        return CCS_BADARGUMENT;
    if (strErrorCode == "full" || strErrorCode == "refused" || strErrorCode == "not-attached")
        return CCS_REFUSED;
    return CCS_FAILED;
}
