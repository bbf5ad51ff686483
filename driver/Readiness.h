// Tells those who started the driver how far it is: scripts, and the service manager if there is one.
#ifndef DRIVER_READINESS_H
#define DRIVER_READINESS_H

// Clients can connect: prints the line "zelmedia-driver: ready" on the standard output, and notifies.
// Call it once.
void reportReady();

// Around what SIGHUP asks for.
void reportReloading();
void reportReloaded();

// The driver begins to end.
void reportStopping();

#endif
