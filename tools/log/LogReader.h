// CLogReader: the lines of a log file, and of what is appended to it.
#ifndef LOG_READER_H
#define LOG_READER_H

#include "base/Interrupt.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

class CLogReader
{
public:
    enum EFollow
    {
        NOT_FOLLOWING,
        // Waits for the file if it is not there, for more lines at its end, and goes on with the file that has
        // taken its place. Ends on Ctrl-C and SIGTERM.
        FOLLOWING
    };
    // A path of "-" is standard input. Throws CToolError for what cannot be read, or is no file.
    CLogReader(const std::string& strPath, EFollow follow);
    ~CLogReader();
    CLogReader(const CLogReader&) = delete;
    CLogReader& operator=(const CLogReader&) = delete;

    // The next line, valid until the next call. Of a longer one than MAX_LINE bytes only the beginning.
    bool next(std::string_view& strvLine);
    static constexpr size_t MAX_LINE = 65536;

    bool wasInterrupted() const { return m_bInterrupted; }

private:
    bool open();
    bool takeLine(std::string_view& strvLine);
    bool readMore();
    bool atEnd();
    void startAgain(int nFile);
    bool isReplaced() const;
    bool isTruncated() const;
    bool wait(int nMilliseconds);

    const std::string m_strPath;
    const std::unique_ptr<CInterrupt> m_pInterrupt; // while following
    int m_nFile = -1;
    bool m_bInterrupted = false;
    bool m_bReplaced = false; // what is left of the old file is still to be read
    uint64_t m_ullRead = 0;   // of this file
    std::vector<char> m_vBuffer;
    size_t m_nBegin = 0; // of what has not been handed out
    size_t m_nEnd = 0;
    bool m_bSkipping = false; // the rest of a line that is too long
    bool m_bLastLine = false; // the file does not end with a line end
};

#endif
