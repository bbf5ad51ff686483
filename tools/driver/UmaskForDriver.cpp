// CUmaskForDriver: lets the driver open the pipes that this process makes.
#include "driver/UmaskForDriver.h"

#include "MediaProtocol.h"

#include <sys/stat.h>
#include <unistd.h>

CUmaskForDriver::CUmaskForDriver() : m_nBefore(umask(0))
{
    struct stat status = {};
    const bool bOtherUser = stat(MI_REQUEST_PIPE, &status) == 0 && status.st_uid != 0 && status.st_uid != geteuid();
    if (!bOtherUser)
        umask(m_nBefore);
}

CUmaskForDriver::~CUmaskForDriver()
{
    umask(m_nBefore);
}
