// The subcommands phrases build, list, check of zelmedia.
#ifndef PHRASES_COMMANDS_H
#define PHRASES_COMMANDS_H

class CTool;

void addPhrasesCommands(CTool& tool);

#endif
