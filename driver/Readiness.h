// Tells those who started the driver how far it is: scripts, and the service manager if there is one.
#ifndef DRIVER_READINESS_H
#define DRIVER_READINESS_H

// Clients can connect: prints the line "zelmedia-driver: ready" on the standard output, and notifies.
// Call it once.
void ReportReady();

// Around what SIGHUP asks for.
void ReportReloading();
void ReportReloaded();

// The driver begins to end.
void ReportStopping();

#endif
