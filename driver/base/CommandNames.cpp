// The short names of the commands, as fault rules and statistics use them.
#include "CommandNames.h"

#include <algorithm>

namespace
{
constexpr CCommandName NAMES[] = {
    {"connect", MICMD_CONNECT, false},
    {"disconnect", MICMD_DISCONNECT, false},
    {"openfile", MICMD_OPENFILE, false},
    {"closefile", MICMD_CLOSEFILE, false},
    {"openstream", MICMD_OPENSTREAM, true},
    {"closestream", MICMD_CLOSESTREAM, true},
    {"playclip", MICMD_PLAYCLIP, true},
    {"playfile", MICMD_PLAYFILE, true},
    {"recordfile", MICMD_RECORDFILE, true},
    {"cancel", MICMD_CANCEL, true},
    {"playgetstats", MICMD_PLAYGETSTATS, true},
    {"recordgetstats", MICMD_RECORDGETSTATS, true},
    {"ping", MICMD_PING, false},
    {"dump", MICMD_DUMP, false},
    {"recordgettime", MICMD_RECORDGETTIME, true},
    {"recordgetstatus", MICMD_RECORDGETSTATUS, true},
};

constexpr bool hasNoGaps()
{
    int nCode = 0;
    for (const CCommandName& entry : NAMES)
        if (entry.m_micmd != ++nCode)
            return false;
    return true;
}
static_assert(hasNoGaps());
} // namespace

std::span<const CCommandName> commandNames()
{
    return NAMES;
}

const CCommandName* findCommandName(std::string_view name)
{
    const auto* pEntry = std::find_if(std::begin(NAMES), std::end(NAMES),
                                      [name](const CCommandName& entry) { return entry.m_pName == name; });
    return pEntry == std::end(NAMES) ? nullptr : pEntry;
}
