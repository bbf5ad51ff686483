// What tests ask about files.
#ifndef FILES_H
#define FILES_H

#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

// Empty where there is none.
inline std::string contentOf(const std::string& strPath)
{
    std::ostringstream bytes;
    bytes << std::ifstream(strPath, std::ios::binary).rdbuf();
    return bytes.str();
}

// The names in a folder, without those that begin with a dot.
inline std::vector<std::string> namesIn(const std::string& strFolder)
{
    std::vector<std::string> vNames;
    DIR* const pFolder = opendir(strFolder.c_str());
    while (const dirent* const pEntry = pFolder ? readdir(pFolder) : nullptr)
        if (pEntry->d_name[0] != '.')
            vNames.emplace_back(pEntry->d_name);
    if (pFolder)
        closedir(pFolder);
    return vNames;
}

// Of the name itself, also where it is a link.
inline struct stat statusOf(const std::string& strPath)
{
    struct stat status = {};
    EXPECT_EQ(0, lstat(strPath.c_str(), &status)) << strPath;
    return status;
}

// The log that the library opens by itself.
inline std::string defaultLog()
{
    const std::string strName = "/Media-p" + std::to_string(getpid()) + ".log";
    return (access("/var/log/zelmedia", W_OK | X_OK) == 0 ? "/var/log/zelmedia" : "/tmp") + strName;
}

#endif
