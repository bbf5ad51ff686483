// The pipes of client processes in /tmp: whose they are, and which are left of processes that ended.
#ifndef PIPE_TABLE_H
#define PIPE_TABLE_H

#include <string>
#include <sys/types.h>
#include <vector>

enum EPipeState
{
    PIPE_IN_USE,   // a process reads it
    PIPE_STARTING, // nobody reads it yet, but it is so new that its process may be about to
    PIPE_STALE,    // nobody reads it, nor will: it only keeps a new process of its id out
    PIPE_UNKNOWN,  // the process lives, and this user may not see whether it reads the pipe
    PIPE_FOREIGN   // no FIFO, but has a pipe's name
};
const char* pipeStateToString(EPipeState state);

struct CClientPipe
{
    std::string strPath;
    std::string strKind; // "response", "event"
    pid_t nProcessID = 0;
    bool bProcessLives = false; // a process has this id; not necessarily the one that made the pipe
    EPipeState state = PIPE_UNKNOWN;
    double dAge = 0;  // seconds since it was made, or last used where the file system does not tell
    double dIdle = 0; // seconds since it was last written into, or made
    dev_t nDevice = 0;
    ino_t nInode = 0;
};

// All that have a pipe's name, by process id, the response pipe first. Throws CToolError when /tmp cannot
// be read.
std::vector<CClientPipe> listClientPipes();

// Those of one process.
std::vector<CClientPipe> listClientPipes(pid_t nProcessID);

// Removes the pipe if it is stale still. False when it is not, with an empty strError, and when it cannot
// be removed. A process that makes a pipe of this name after the last look, within microseconds, loses it.
bool removeStalePipe(const CClientPipe& pipe, std::string& strError);

// The command name of a process as a terminal can show it; empty when it has none to be seen.
std::string commandName(pid_t nProcessID);

#endif
