// Child processes with a library of their own in them.
#ifndef MEASURING_CHILD_H
#define MEASURING_CHILD_H

#include "Child.h"
#include "Fd.h"

#include <cstdint>
#include <functional>

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
    CChild m_child;
};

#endif
