// All subcommands of zelmedia.
#include "Commands.h"

#include "explain/ExplainCommand.h"
#include "machine/MachineCommands.h"
#include "media/MediaCommands.h"
#include "phrases/PhrasesCommands.h"
#include "shell/CompletionCommand.h"
#include "timeline/TimelineCommand.h"
#include "trace/TraceCommand.h"

void addAllCommands(CTool& tool)
{
    addMediaCommands(tool);
    addPhrasesCommands(tool);
    addMachineCommands(tool);
    addTraceCommand(tool);
    addTimelineCommand(tool);
    addExplainCommand(tool);
    addCompletionCommand(tool);
}
