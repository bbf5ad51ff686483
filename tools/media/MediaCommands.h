// The subcommands play, record, phrase play of zelmedia.
#ifndef MEDIA_COMMANDS_H
#define MEDIA_COMMANDS_H

class CTool;

void addMediaCommands(CTool& tool);

#endif
