// The subcommand explain of zelmedia.
#include "Tool.h"

void addExplainCommand(CTool&) {}
