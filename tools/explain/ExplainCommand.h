// The subcommand explain of zelmedia: what a status means, when it arises, what to do.
#ifndef EXPLAIN_COMMAND_H
#define EXPLAIN_COMMAND_H

class CTool;

void addExplainCommand(CTool& tool);

#endif
