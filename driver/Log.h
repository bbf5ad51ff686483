// Sets up the driver's log.
#ifndef DRIVER_LOG_H
#define DRIVER_LOG_H

#include "Options.h"

#include <string>

// Makes the spdlog default logger write where and how the options say, each line at once and from any
// thread. A file is appended to; links are followed. False, with the reason in strError, when the log
// file cannot be opened; the logger is then as before.
bool setUpLog(const COptions& options, std::string& strError);

// Opens the log file anew under its name, for instance after it was moved away. False, with the reason
// in strError and in the log, when that fails: the log then goes on in the old file. Without a log file
// there is nothing to do.
bool reopenLog(std::string& strError);

#endif
