// CInterrupt: Ctrl-C and SIGTERM as something to wait for, together with a wake-up from another thread.
#include "base/Interrupt.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace
{
sigset_t interrupts()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}
} // namespace

CInterrupt::CInterrupt() : m_nWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    const sigset_t set = interrupts();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    m_nSignals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_nSignals < 0 || m_nWake < 0)
        throw std::system_error(errno, std::generic_category(), "no descriptors");
}

CInterrupt::~CInterrupt()
{
    while (wait(std::chrono::milliseconds(0)))
    {
    }
    close(m_nSignals);
    close(m_nWake);
    const sigset_t set = interrupts();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void CInterrupt::wake()
{
    eventfd_write(m_nWake, 1);
}

bool CInterrupt::wait(std::chrono::milliseconds limit)
{
    pollfd aPoll[] = {{m_nSignals, POLLIN, 0}, {m_nWake, POLLIN, 0}};
    poll(aPoll, 2, static_cast<int>(limit.count()));
    eventfd_t nWakes = 0;
    eventfd_read(m_nWake, &nWakes);
    signalfd_siginfo info;
    return read(m_nSignals, &info, sizeof(info)) == sizeof(info);
}
