// The short names of the commands, as fault rules and statistics use them.
#include "CommandNames.h"

#include <algorithm>

namespace
{
constexpr CCommandName NAMES[] = {
    {MICMD_CONNECT, "connect", false},
    {MICMD_DISCONNECT, "disconnect", false},
    {MICMD_OPENFILE, "openfile", false},
    {MICMD_CLOSEFILE, "closefile", false},
    {MICMD_OPENSTREAM, "openstream", true},
    {MICMD_CLOSESTREAM, "closestream", true},
    {MICMD_PLAYCLIP, "playclip", true},
    {MICMD_PLAYFILE, "playfile", true},
    {MICMD_RECORDFILE, "recordfile", true},
    {MICMD_CANCEL, "cancel", true},
    {MICMD_PLAYGETSTATS, "playgetstats", true},
    {MICMD_RECORDGETSTATS, "recordgetstats", true},
    {MICMD_PING, "ping", false},
    {MICMD_DUMP, "dump", false},
    {MICMD_RECORDGETTIME, "recordgettime", true},
    {MICMD_RECORDGETSTATUS, "recordgetstatus", true},
};

constexpr bool HasNoGaps()
{
    int nCode = 0;
    for (const CCommandName& entry : NAMES)
    {
        if (entry.m_micmd != ++nCode)
        {
            return false;
        }
    }
    return true;
}
static_assert(HasNoGaps());
} // namespace

std::span<const CCommandName> CommandNames()
{
    return NAMES;
}

const CCommandName* FindCommandName(std::string_view name)
{
    const auto* pEntry = std::find_if(std::begin(NAMES), std::end(NAMES),
                                      [name](const CCommandName& entry) { return entry.m_pName == name; });
    return pEntry == std::end(NAMES) ? nullptr : pEntry;
}
