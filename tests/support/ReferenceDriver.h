// The reference driver as a child process, for tests of the library against it.
#ifndef REFERENCE_DRIVER_H
#define REFERENCE_DRIVER_H

#include <string>
#include <sys/types.h>
#include <vector>

// A native program, whatever the width of the test. It is killed if the test leaves it running.
class CReferenceDriver
{
public:
    // Nothing runs before start.
    CReferenceDriver() = default;
    ~CReferenceDriver();
    CReferenceDriver(const CReferenceDriver&) = delete;
    CReferenceDriver& operator=(const CReferenceDriver&) = delete;

    // Starts the program with these options and waits until clients can connect.
    bool start(const std::vector<std::string>& vOptions);

    // Sends the signal and waits for the end; SIGKILL for a crash.
    void stop(int nSignal);

    // Waits for an end that something else has brought about.
    void waitEnd();

    // Asks the running driver: {"hangup", "call=1001"}. Whether it said yes.
    static bool control(const std::vector<std::string>& vWords);

private:
    pid_t m_nProcessID = -1;
};

#endif
