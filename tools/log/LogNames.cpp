// Names of commands and statuses, for people.
#include "log/LogNames.h"

#include "MediaProtocol.h"
#include "ZelMediaServices.h"

#include <cstring>

namespace
{
const size_t PREFIX_LENGTH = 6; // of "MICMD_"
} // namespace

int commandCount()
{
    return COMMAND_COUNT + 1;
}

const char* shortCommandName(int nCommand)
{
    return nCommand < 0 || nCommand >= commandCount() ? "?"
                                                      : MICMDToString(static_cast<MICMD>(nCommand)) + PREFIX_LENGTH;
}

int commandFromName(std::string_view strvName)
{
    if (strvName.starts_with("MICMD_"))
        strvName.remove_prefix(PREFIX_LENGTH);
    for (int n = 0; n < commandCount(); ++n)
        if (strvName == shortCommandName(n))
            return n;
    return NO_COMMAND;
}

bool isPlayCommand(int nCommand)
{
    return nCommand == MICMD_PLAYCLIP || nCommand == MICMD_PLAYFILE;
}

bool isPlayOrRecordCommand(int nCommand)
{
    const CCommandInfo* const pInfo = commandInfo(nCommand);
    return pInfo && pInfo->m_bActive;
}

std::string statusName(int nStatus)
{
    const char* const pszName = MCSTATUSToString(nStatus);
    return std::strcmp(pszName, "MCSTATUS unknown") == 0 ? "status " + std::to_string(nStatus) : pszName;
}
