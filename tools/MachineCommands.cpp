// The subcommands status, clean, dump of zelmedia.
#include "Tool.h"

void addMachineCommands(CTool&) {}
