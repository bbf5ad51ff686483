// Asks the reference driver on its control socket.
#ifndef DRIVER_CONTROL_H
#define DRIVER_CONTROL_H

#include <nlohmann/json.hpp>

#include <chrono>
#include <string>

// Sends one request, such as "clients", and gives the answer without its "ok". False when there is none in
// time or the driver says no; strError says why.
bool askDriver(const std::string& strSocketPath, const std::string& strRequest, std::chrono::milliseconds limit,
               nlohmann::ordered_json& answer, std::string& strError);

#endif
