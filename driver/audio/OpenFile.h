// Opening a file beside the loop, in the lane of the file system that it is on.
#ifndef DRIVER_OPEN_FILE_H
#define DRIVER_OPEN_FILE_H

#include "Executor.h"

#include <functional>
#include <string>

struct COpenResult
{
    CExecutor* m_pLane = nullptr; // where everything else is to be done with the file
    std::string m_strError;       // empty when it is open; without the path
    bool m_bMissing = false;      // there is no such file, nor does a folder of its path exist
};

// What is done with the file where it may block. False, with the reason without the path in strError, when it is
// of no use. What it throws is an error, too.
using OpenedFunction = std::function<bool(CFd fd, const struct stat& status, std::string& strError)>;
using OpenResultFunction = std::function<void(const COpenResult& result)>;

// Opens a regular file, and runs opened where it was opened, then done on the loop's thread. nFlags are those of
// open. Which links may lead to the file says the executor where it is to be written; others are all followed.
void openFile(CExecutor& executor, const std::string& strPath, int nFlags, OpenedFunction opened,
              OpenResultFunction done);

// The same at once, on the calling thread.
bool openFileHere(const std::string& strPath, int nFlags, const OpenedFunction& opened, std::string& strError);

#endif
