// Names of commands and statuses, for people.
#include "log/LogNames.h"

#include "MediaProtocol.h"
#include "ZelMediaServices.h"

#include <array>
#include <cstring>

namespace
{
const int LAST_COMMAND = MICMD_RECORDGETSTATUS;
const size_t PREFIX_LENGTH = 6; // of "MICMD_"

const std::array<std::string_view, LAST_COMMAND + 1>& commandNames()
{
    static const auto s_names = [] {
        std::array<std::string_view, LAST_COMMAND + 1> names;
        for (size_t n = 0; n < names.size(); ++n)
            names[n] = MICMDToString(static_cast<MICMD>(n));
        return names;
    }();
    return s_names;
}
} // namespace

const char* shortCommandName(int nCommand)
{
    return nCommand < 0 || nCommand > LAST_COMMAND ? "?" : MICMDToString(static_cast<MICMD>(nCommand)) + PREFIX_LENGTH;
}

int commandFromName(std::string_view strvName)
{
    const auto& names = commandNames();
    for (size_t n = 0; n < names.size(); ++n)
        if (strvName == names[n] || strvName == names[n].substr(PREFIX_LENGTH))
            return static_cast<int>(n);
    return NO_COMMAND;
}

bool isPlayCommand(int nCommand)
{
    return nCommand == MICMD_PLAYCLIP || nCommand == MICMD_PLAYFILE;
}

bool isPlayOrRecordCommand(int nCommand)
{
    return isPlayCommand(nCommand) || nCommand == MICMD_RECORDFILE;
}

std::string statusName(int nStatus)
{
    const char* const pszName = MCSTATUSToString(nStatus);
    return std::strcmp(pszName, "MCSTATUS unknown") == 0 ? "status " + std::to_string(nStatus) : pszName;
}
