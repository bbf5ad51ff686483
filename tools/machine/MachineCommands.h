// The subcommands status, clean, dump of zelmedia.
#ifndef MACHINE_COMMANDS_H
#define MACHINE_COMMANDS_H

class CTool;

void addMachineCommands(CTool& tool);

#endif
