// What zelmedia asks and tells a terminal: whether it is one, how wide it is, colours.
#ifndef TERMINAL_H
#define TERMINAL_H

#include <string>

enum EColour
{
    COLOUR_NONE,
    COLOUR_RED,
    COLOUR_GREEN,
    COLOUR_YELLOW,
    COLOUR_BLUE,
    COLOUR_GREY,
    COLOUR_BOLD
};

// Standard output.
bool isTerminal();
int terminalColumns(); // 80 when it is not known

// The text in this colour when standard output is a terminal that wants colours (NO_COLOR is not set).
std::string coloured(EColour colour, const std::string& strText);

#endif
