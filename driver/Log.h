// Sets up the driver's log.
#ifndef DRIVER_LOG_H
#define DRIVER_LOG_H

#include "Options.h"

// Makes the spdlog default logger write where the options say, each line at once. False, with the
// reason in strError, when the log file cannot be opened.
bool SetUpLog(const COptions& options, std::string& strError);

#endif
