// Which file system a path is on, as far as that can be told without touching the file system.
#ifndef DRIVER_MOUNT_TABLE_H
#define DRIVER_MOUNT_TABLE_H

#include "Fd.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

// The mount points of this process, as they are listed in /proc/self/mountinfo. Never changes.
class CMountTable
{
public:
    // The text of mountinfo. Lines that are none of it are left out.
    explicit CMountTable(std::string_view text);

    // The file system that is mounted where the path leads to when none of its parts is a link: the device's
    // numbers as text. Empty when that is not known. The path is absolute.
    const std::string& fileSystemOf(const std::string& strPath) const;

private:
    struct CMount
    {
        std::string m_strPath; // "" for the root
        std::string m_strDevice;
    };

    void add(std::string_view line);

    std::vector<CMount> m_vMounts; // the longest path first, the latest of equal ones
};

// The mount table of now. Used on one thread; the tables that it gives out may go anywhere.
class CMounts
{
public:
    explicit CMounts(std::string strPath = "/proc/self/mountinfo");

    // Reads the table again when the system says that it has changed.
    std::shared_ptr<const CMountTable> table();

private:
    const std::string m_strPath;
    CFd m_fd;
    std::shared_ptr<const CMountTable> m_pTable;
};

// The same path, absolute, and without ".", ".." and doubled slashes.
std::string plainPath(const std::string& strPath);

#endif
