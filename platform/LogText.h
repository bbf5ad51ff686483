// CLogText: the text of one line of any length, with room before it for the head of the line.
#ifndef LOG_TEXT_H
#define LOG_TEXT_H

#include "LogHead.h"

#include <cstdarg>
#include <cstddef>
#include <memory>

namespace OrvLogLib
{

// Usual lines need no memory from the heap.
class CLogText
{
public:
    static constexpr size_t HEAD_ROOM = CLogHead::MAX_LENGTH;

    CLogText() = default;
    CLogText(const CLogText&) = delete;
    CLogText& operator=(const CLogText&) = delete;

    // Appends formatted text. The whole text is cut at nMaxLength bytes unless that is 0, and at
    // what the stack holds when the heap is empty.
    void append(size_t nMaxLength, const char* pszFormat, ...) __attribute__((format(printf, 3, 4)));
    void appendArgList(size_t nMaxLength, const char* pszFormat, va_list arguments)
        __attribute__((format(printf, 3, 0)));

    // Puts blanks for control characters.
    void makeOneLine();

    // Puts the head before the text, at most HEAD_ROOM bytes, and a line end after it. Returns
    // where the line begins; its length is nHead + length() + 1.
    const char* asLine(const char* pHead, size_t nHead);

    const char* text() const { return m_pBuffer + HEAD_ROOM; }
    size_t length() const { return m_nLength; }

private:
    bool reserve(size_t nLength);

    static constexpr size_t STACK_ROOM = 1024;

    char m_szStack[HEAD_ROOM + STACK_ROOM]; // the last byte is for the terminating 0 or the line end
    std::unique_ptr<char[]> m_pHeap;
    char* m_pBuffer = m_szStack;
    size_t m_nRoom = STACK_ROOM;
    size_t m_nLength = 0;
};

} // namespace OrvLogLib

#endif
