// CNewFile: a file that appears under its name only when it is complete.
#ifndef NEW_FILE_H
#define NEW_FILE_H

#include <string>
#include <string_view>

class CNewFile
{
public:
    // Writes the content beside the place where it is to be. Throws CToolError when that fails, or when
    // what is in its place is no file.
    CNewFile(const std::string& strPath, std::string_view content);
    ~CNewFile(); // removes what has not been put in its place
    CNewFile(const CNewFile&) = delete;
    CNewFile& operator=(const CNewFile&) = delete;

    void putInPlace();

private:
    int create();
    [[noreturn]] void fail(int nErrno);
    void remove();

    const std::string m_strPath;
    std::string m_strTemporary; // empty when there is none
};

#endif
