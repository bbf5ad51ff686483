// The subcommands play, record, phrase play of zelmedia.
#include "Tool.h"

void addMediaCommands(CTool&) {}
