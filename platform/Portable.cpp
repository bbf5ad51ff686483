#include "Portable.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <unistd.h>

int CPortable::CreateThread(ThreadEntry entry, void* pArgument, pthread_t* pThreadID, const char* pszName)
{
    // A thread inherits the mask of its creator: block first, so that there is no moment at which
    // the new thread could take a signal.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    const int nError = pthread_create(&thread, nullptr, entry, pArgument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (nError != 0)
        return 0;

    char szName[16];
    snprintf(szName, sizeof(szName), "%s", pszName && *pszName ? pszName : "ZelMedia");
    pthread_setname_np(thread, szName);
    if (pThreadID)
        *pThreadID = thread;
    pthread_detach(thread);
    return 1;
}

uint64_t CPortable::GetTickCountULL()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

int CPortable::GetCurrentProcessId()
{
    return getpid();
}

void CPortable::Sleep(unsigned int nMilliseconds)
{
    timespec left = {static_cast<time_t>(nMilliseconds / 1000), static_cast<long>(nMilliseconds % 1000) * 1000000};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR)
    {
    }
}

std::string CPortable::ulltos(uint64_t ullNumber)
{
    return std::to_string(ullNumber);
}
