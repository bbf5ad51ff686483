// Names of commands and statuses, for people.
#include "log/LogNames.h"

#include "MediaProtocol.h"
#include "ZelMediaServices.h"

#include <cstring>

namespace
{
const size_t PREFIX_LENGTH = 6; // of "MICMD_"
} // namespace

const char* shortCommandName(int nCommand)
{
    return nCommand < 0 || nCommand > COMMAND_COUNT ? "?" : MICMDToString(static_cast<MICMD>(nCommand)) + PREFIX_LENGTH;
}

int commandFromName(std::string_view strvName)
{
    for (int n = 0; n <= COMMAND_COUNT; ++n)
    {
        const std::string_view strvLong = MICMDToString(static_cast<MICMD>(n));
        if (strvName == strvLong || strvName == strvLong.substr(PREFIX_LENGTH))
            return n;
    }
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
