// CUmaskForDriver: lets the driver open the pipes that this process makes.
#ifndef UMASK_FOR_DRIVER_H
#define UMASK_FOR_DRIVER_H

#include <sys/types.h>

// While it lives, pipes are made open to all if the driver is another user's, as who owns the request pipe tells;
// otherwise as the umask says, which leaves them to our own user and to root. To be made before there are threads.
class CUmaskForDriver
{
public:
    CUmaskForDriver();
    ~CUmaskForDriver();
    CUmaskForDriver(const CUmaskForDriver&) = delete;
    CUmaskForDriver& operator=(const CUmaskForDriver&) = delete;

private:
    mode_t m_nBefore;
};

#endif
