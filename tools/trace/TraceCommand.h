// The subcommand trace of zelmedia.
#ifndef TRACE_COMMAND_H
#define TRACE_COMMAND_H

class CTool;

void addTraceCommand(CTool& tool);

#endif
