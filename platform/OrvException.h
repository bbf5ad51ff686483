// OrvException: what the constructors of the library throw when a set-up step fails.
#ifndef ORV_EXCEPTION_H
#define ORV_EXCEPTION_H

#include <cstdio>
#include <exception>

// A code and the place in the sources that threw it. Copied and thrown by value.
class __attribute__((visibility("default"))) OrvException : public std::exception
{
public:
    // Values of code().
    enum : unsigned int
    {
        OUT_OF_MEMORY = 0x8007000E // a set-up step got no memory
    };

    // uCode says what failed; pszFile and nLine where, kept as "file.line", at most 270 characters.
    OrvException(unsigned int uCode, const char* pszFile, int nLine) noexcept : m_uCode(uCode)
    {
        std::snprintf(m_szLocation, sizeof(m_szLocation), "%s.%d", pszFile, nLine);
    }

    // What failed.
    unsigned int code() const noexcept { return m_uCode; }

    // Where: "file.line". Owned by the exception.
    const char* location() const noexcept { return m_szLocation; }

    // The same as location().
    const char* what() const noexcept override { return m_szLocation; }

private:
    unsigned int m_uCode;
    char m_szLocation[271];
};

#endif
