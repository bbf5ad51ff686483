// A driver program as a child process, and the reference driver as one.
#ifndef REFERENCE_DRIVER_H
#define REFERENCE_DRIVER_H

#include "Child.h"

// A program that says by its first output that clients can connect.
class CDriverProcess : public CChild
{
public:
    // Starts it and waits for that.
    bool start(const std::string& strProgram, const std::vector<std::string>& vArguments);
};

// A native program, whatever the width of the test.
class CReferenceDriver : public CDriverProcess
{
public:
    // Starts the program with these options and waits until clients can connect.
    bool start(const std::vector<std::string>& vOptions);

    // Sends the signal and waits for the end; SIGKILL for a crash.
    void stop(int nSignal);

    // Waits for an end that something else has brought about.
    void waitEnd() { waitExit(); }

    // Asks the running driver: {"hangup", "call=1001"}. Whether it said yes.
    static bool control(const std::vector<std::string>& vWords);
};

#endif
