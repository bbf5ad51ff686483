// The system calls of an exchange: one write, one wait, one read.
#include "MIntfFixture.h"

#include <poll.h>
#include <string>
#include <unistd.h>

namespace
{
std::string* s_pCalls = nullptr; // where calls are noted, if anywhere

void note(const char* pszCall)
{
    if (s_pCalls)
        *s_pCalls += pszCall;
}
} // namespace

// The names are the linker's.
extern "C"
{
    ssize_t __real_write(int, const void*, size_t);
    ssize_t __real_read(int, void*, size_t);
    int __real_poll(pollfd*, nfds_t, int);

    ssize_t __wrap_write(int nDescriptor, const void* pBytes, size_t nBytes)
    {
        note("write ");
        return __real_write(nDescriptor, pBytes, nBytes);
    }

    ssize_t __wrap_read(int nDescriptor, void* pBytes, size_t nBytes)
    {
        note("read ");
        return __real_read(nDescriptor, pBytes, nBytes);
    }

    int __wrap_poll(pollfd* pEntries, nfds_t nEntries, int nTimeout)
    {
        note("poll ");
        return __real_poll(pEntries, nEntries, nTimeout);
    }
}

class MIntfSystemCalls : public CMIntfTest
{
};

TEST_F(MIntfSystemCalls, ExchangeIsOneWriteOneWaitAndOneRead)
{
    std::string strCalls;
    respondNext();
    s_pCalls = &strCalls;
    const MCSTATUS mcstatus = m_pmintf->ping();
    s_pCalls = nullptr;
    EXPECT_EQ(MCS_OK, mcstatus);
    EXPECT_EQ("write poll read ", strCalls);
}
