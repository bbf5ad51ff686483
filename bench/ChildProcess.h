// Child processes of the worker: partners of a probe, and processes with a library of their own in them.
#ifndef CHILD_PROCESS_H
#define CHILD_PROCESS_H

#include "Fd.h"

#include <sys/types.h>

#include <cstdint>
#include <functional>

// Does its work and is killed with this object or with the worker, whichever ends first.
class CChildProcess
{
public:
    explicit CChildProcess(const std::function<void()>& work);
    ~CChildProcess();
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    void waitEnd();

private:
    pid_t m_nProcess;
};

// A child in which operations are measured. This process must not have a library in it, or the child would use that.
class CMeasuringChild
{
public:
    // Returns what the operation took; throws std::runtime_error when it fails.
    using Measure = std::function<int64_t(int nOperation, int64_t nTimes)>;

    // The child calls makeMeasure once, with the first request.
    explicit CMeasuringChild(const std::function<Measure()>& makeMeasure);

    // Has it measured in the child. Throws std::runtime_error with what the child has thrown.
    int64_t run(int nOperation, int64_t nTimes);

    // Waits until the child has disconnected its library and ended.
    void end();

private:
    struct CSockets
    {
        CFd m_fdParent;
        CFd m_fdChild;
    };
    static CSockets makeSockets();

    CSockets m_sockets;
    CChildProcess m_child;
};

#endif
