// The subcommand dump of zelmedia: what the library lists of this process, and the driver of itself.
#ifndef DUMP_COMMAND_H
#define DUMP_COMMAND_H

#include "base/Duration.h"
#include "base/Tool.h"

#include <string>

struct CDumpOptions
{
    CMilliseconds limit = std::chrono::seconds(2);
    std::string strControl; // empty: the usual ones
};

int runDump(const CTool& tool, const CDumpOptions& options);

#endif
