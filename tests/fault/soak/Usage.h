// What a process holds: descriptors, threads, memory.
#ifndef USAGE_H
#define USAGE_H

#include <cstdint>
#include <dirent.h>
#include <fstream>
#include <ostream>
#include <string>
#include <sys/types.h>
#include <unistd.h>

inline size_t namesIn(const std::string& strFolder)
{
    size_t nNames = 0;
    DIR* const pFolder = opendir(strFolder.c_str());
    while (const dirent* const pEntry = pFolder ? readdir(pFolder) : nullptr)
        nNames += pEntry->d_name[0] != '.';
    if (pFolder)
        closedir(pFolder);
    return nNames;
}

struct CUsage
{
    size_t nDescriptors;
    size_t nThreads;
    size_t nNamesInTmp = namesIn("/tmp");

    explicit CUsage(pid_t nProcessID)
        : nDescriptors(namesIn("/proc/" + std::to_string(nProcessID) + "/fd")),
          nThreads(namesIn("/proc/" + std::to_string(nProcessID) + "/task"))
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
