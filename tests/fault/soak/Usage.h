// What a process holds: descriptors, threads, memory.
#ifndef USAGE_H
#define USAGE_H

#include "Files.h"

#include <cstdint>
#include <fstream>
#include <ostream>
#include <string>
#include <sys/types.h>
#include <unistd.h>

struct CUsage
{
    size_t nDescriptors;
    size_t nThreads;
    size_t nNamesInTmp = namesIn("/tmp").size();

    explicit CUsage(pid_t nProcessID)
        : nDescriptors(namesIn("/proc/" + std::to_string(nProcessID) + "/fd").size()),
          nThreads(namesIn("/proc/" + std::to_string(nProcessID) + "/task").size())
    {
    }
    bool operator==(const CUsage& other) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const CUsage& usage)
{
    return os << usage.nDescriptors << " descriptors, " << usage.nThreads << " threads, " << usage.nNamesInTmp
              << " names in /tmp";
}

inline long residentKilobytes(pid_t nProcessID)
{
    int64_t nPages = 0; // sanitizers reserve more than 32 bits can count
    std::ifstream file("/proc/" + std::to_string(nProcessID) + "/statm");
    file >> nPages >> nPages;
    return static_cast<long>(nPages * sysconf(_SC_PAGESIZE) / 1024);
}

#endif
