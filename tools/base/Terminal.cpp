// What zelmedia asks and tells a terminal: whether it is one, how wide it is, colours.
#include "base/Terminal.h"

#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{
bool wantsColours()
{
    const char* const pszNoColour = std::getenv("NO_COLOR");
    const char* const pszTerminal = std::getenv("TERM");
    return isTerminal() && !(pszNoColour && *pszNoColour) && !(pszTerminal && std::strcmp(pszTerminal, "dumb") == 0);
}

const char* sequenceOf(EColour colour)
{
    switch (colour)
    {
    case COLOUR_NONE: break;
    case COLOUR_RED: return "\033[31m";
    case COLOUR_GREEN: return "\033[32m";
    case COLOUR_YELLOW: return "\033[33m";
    case COLOUR_BLUE: return "\033[34m";
    case COLOUR_GREY: return "\033[90m";
    case COLOUR_BOLD: return "\033[1m";
    }
    return "";
}
} // namespace

bool isTerminal()
{
    return isatty(STDOUT_FILENO) == 1;
}

int terminalColumns()
{
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

std::string coloured(EColour colour, const std::string& strText)
{
    return colour == COLOUR_NONE || !wantsColours() ? strText : sequenceOf(colour) + strText + "\033[0m";
}
