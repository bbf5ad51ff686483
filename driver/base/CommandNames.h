// The short names of the commands, as fault rules and statistics use them.
#ifndef DRIVER_COMMAND_NAMES_H
#define DRIVER_COMMAND_NAMES_H

#include "MediaProtocol.h"

#include <span>
#include <string_view>

struct CCommandName
{
    const char* m_pName; // "playfile"
    MICMD m_micmd;
    bool m_bNamesStream; // the request is about one stream, and thereby about a call id
};

// All commands by ascending code, which begins at 1 and has no gaps.
std::span<const CCommandName> commandNames();

// Null when there is none.
const CCommandName* findCommandName(std::string_view name);

#endif
