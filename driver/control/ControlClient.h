// The other end of the control socket: sends one request and prints the answer.
#ifndef DRIVER_CONTROL_CLIENT_H
#define DRIVER_CONTROL_CLIENT_H

#include <chrono>
#include <string>
#include <vector>

// The words are the name of a request and its fields as key=value, or one JSON object. Prints the
// answer on the standard output, mistakes and refusals on the standard error. Returns the exit code:
// 0 when the driver has done it, 1 when it refuses or does not answer in time, 2 for words
// that make no request.
int runControl(const std::string& strSocketPath, const std::vector<std::string>& vWords,
               std::chrono::milliseconds limit = std::chrono::seconds(5));

#endif
