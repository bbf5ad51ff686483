// Tells those who started the driver how far it is: scripts, and the service manager if there is one.
#include "Readiness.h"

#include <systemd/sd-daemon.h>

#include <chrono>
#include <cstdio>

void reportReady()
{
    std::puts("zelmedia-driver: ready");
    std::fflush(stdout);
    ::sd_notify(0, "READY=1");
}

void reportReloading()
{
    // Service managers that want the time of the reload want it on this clock.
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    ::sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%lld",
                 static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(now).count()));
}

void reportReloaded()
{
    ::sd_notify(0, "READY=1");
}

void reportStopping()
{
    ::sd_notify(0, "STOPPING=1");
}
