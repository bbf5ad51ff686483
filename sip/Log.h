// Sets up the log of the signalling daemon.
#ifndef SIP_LOG_H
#define SIP_LOG_H

#include "Options.h"

#include <string>

// False, with the reason in strError, when the log file cannot be opened.
bool setUpLog(const COptions& options, std::string& strError);

#endif
