// The subcommand timeline of zelmedia.
#ifndef TIMELINE_COMMAND_H
#define TIMELINE_COMMAND_H

class CTool;

void addTimelineCommand(CTool& tool);

#endif
