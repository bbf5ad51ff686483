// A driver program as a child process that can be stopped, continued, killed and looked at.
#ifndef DRIVER_PROCESS_H
#define DRIVER_PROCESS_H

#include <string>
#include <sys/types.h>
#include <vector>

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
    void stop() const;
    void kill();
    // Whether it has ended by itself; its remains are gone then. Waits for that with bWait.
    bool ended(bool bWait);

private:
    pid_t m_nProcessID = -1;
};

#endif
