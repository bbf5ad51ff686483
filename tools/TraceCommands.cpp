// The subcommands trace, timeline of zelmedia.
#include "Tool.h"

void addTraceCommands(CTool&) {}
