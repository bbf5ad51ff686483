// zelmedia: the command for people who test a line, look after a machine, or debug an application.
#include "Commands.h"
#include "base/Tool.h"

int main(int nArguments, char** ppArguments)
{
    CTool tool;
    addAllCommands(tool);
    return tool.run(nArguments, ppArguments);
}
