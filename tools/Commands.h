// All subcommands of zelmedia.
#ifndef COMMANDS_H
#define COMMANDS_H

class CTool;

void addAllCommands(CTool& tool);

#endif
