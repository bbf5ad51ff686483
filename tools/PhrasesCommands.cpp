// The subcommands phrases build, list, check of zelmedia.
#include "Tool.h"

void addPhrasesCommands(CTool&) {}
