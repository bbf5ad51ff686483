// A worker in a /tmp of its own, seen from the process that commands it.
#ifndef WORKER_PROCESS_H
#define WORKER_PROCESS_H

#include "Fd.h"

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>

struct CPrograms
{
    std::string m_strPrivateTmp; // runs a program in a private /tmp
    std::string m_strPeer;
};

class CWorkerProcess
{
public:
    CWorkerProcess(const CPrograms& programs, const std::string& strWorker);
    ~CWorkerProcess(); // the worker ends with it
    CWorkerProcess(const CWorkerProcess&) = delete;
    CWorkerProcess& operator=(const CWorkerProcess&) = delete;

    // Runs a probe. Throws std::runtime_error when it fails, or does not come back in time.
    std::chrono::nanoseconds run(const std::string& strProbe, int64_t nOperations);

private:
    CFd m_fdCommands;
    pid_t m_nProcess = -1;
};

#endif
