// The subcommand completion of zelmedia, and the hidden one that the shells' scripts ask.
#ifndef COMPLETION_COMMAND_H
#define COMPLETION_COMMAND_H

class CTool;

void addCompletionCommand(CTool& tool);

#endif
