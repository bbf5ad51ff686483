// Sets up the driver's log.
#ifndef DRIVER_LOG_H
#define DRIVER_LOG_H

#include "Options.h"

#include <string>

// Makes the spdlog default logger write where and how the options say, from any thread. The lines are written on a
// thread of their own: where they cannot be, some MiB of them wait, and those that come then are left out and counted.
// A file is appended to; links are followed. False, with the reason in strError, when the log file cannot be opened;
// the logger is then as before.
bool setUpLog(const COptions& options, std::string& strError);

// Has the log file opened anew under its name, for instance after it was moved away, behind the lines that were
// logged before. When that fails the log says so, and goes on in the old file. Without a log file there is nothing
// to do.
void reopenLog();

// Waits until all lines are written. False when that takes too long.
bool flushLog();

#endif
