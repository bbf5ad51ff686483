// Names of commands and statuses, for people.
#ifndef LOG_NAMES_H
#define LOG_NAMES_H

#include <string>
#include <string_view>

const int NO_COMMAND = -1;

// Of a set of commands; 0 for NO_COMMAND.
constexpr unsigned int commandBit(int nCommand)
{
    return nCommand == NO_COMMAND ? 0 : 1U << nCommand;
}

// Commands are numbered from 0, which is no request, to one below.
int commandCount();

// MICMD_PLAYFILE is "PLAYFILE"; "?" for what is no command.
const char* shortCommandName(int nCommand);
int commandFromName(std::string_view strvName); // with or without MICMD_, NO_COMMAND for none
bool isPlayCommand(int nCommand);
bool isPlayOrRecordCommand(int nCommand);

// "MCS_TIMEDOUT"; "status 99" for one of the driver's own.
std::string statusName(int nStatus);

#endif
