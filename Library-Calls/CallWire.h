// What the socket of zelmedia-sip says, in the types of the public header.
#ifndef CALL_WIRE_H
#define CALL_WIRE_H

#include "ZelCallServices.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <utility>

// A leg is known by call id and leg number.
using CLegKey = std::pair<std::string, unsigned long>;

// A field of another type, out of range or absent reads as what is given. The server is not trusted.
std::string textOf(const nlohmann::json& object, const char* pKey);
uint64_t numberOf(const nlohmann::json& object, const char* pKey, uint64_t ullOtherwise = 0);
int statusCodeOf(const nlohmann::json& object);
bool flagOf(const nlohmann::json& object, const char* pKey);

// Nothing for a call id that no call has, or no leg.
std::optional<CLegKey> legKeyOf(const nlohmann::json& object);
// Of a call object, with a key.
CZelCallInfo infoOf(const nlohmann::json& object, const CLegKey& key);

CC_END_REASON endReasonOf(const std::string& strReason);
CC_DIGITS_END digitsEndOf(const std::string& strWhy);
CCSTATUS statusOf(const std::string& strErrorCode);

#endif
