// A driver program as a child process, and the reference driver as one.
#ifndef REFERENCE_DRIVER_H
#define REFERENCE_DRIVER_H

#include <string>
#include <sys/types.h>
#include <vector>

// Can be stopped, continued, killed and looked at.
class CDriverProcess
{
public:
    // Nothing runs before start. A program that is left running is killed.
    CDriverProcess() = default;
    ~CDriverProcess();
    CDriverProcess(const CDriverProcess&) = delete;
    CDriverProcess& operator=(const CDriverProcess&) = delete;

    // Starts the program and waits for its first output, by which it says that clients can connect.
    bool start(const std::string& strProgram, const std::vector<std::string>& vArguments);

    pid_t processID() const { return m_nProcessID; }
    void signal(int nSignal) const;
    // Sends the signal and waits until the process is in the state that it brings about.
    void freeze() const;
    void kill();
    // Whether it has ended by itself; its remains are gone then. Waits for that with bWait.
    bool ended(bool bWait);

private:
    pid_t m_nProcessID = -1;
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
    void waitEnd() { ended(true); }

    // Asks the running driver: {"hangup", "call=1001"}. Whether it said yes.
    static bool control(const std::vector<std::string>& vWords);
};

#endif
