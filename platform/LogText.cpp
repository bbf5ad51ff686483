// CLogText: the text of one line of any length, with room before it for the head of the line.
#include "LogText.h"

#include "LogFormat.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

namespace OrvLogLib
{

void CLogText::append(size_t nMaxLength, const char* pszFormat, ...)
{
    va_list arguments;
    va_start(arguments, pszFormat);
    appendArgList(nMaxLength, pszFormat, arguments);
    va_end(arguments);
}

void CLogText::appendArgList(size_t nMaxLength, const char* pszFormat, va_list arguments)
{
    if (!pszFormat)
        return;
    va_list again;
    va_copy(again, arguments);
    const int nAll = vsnprintf(m_pBuffer + HEAD_ROOM + m_nLength, m_nRoom - m_nLength, pszFormat, arguments);
    size_t nLength = m_nLength + (nAll > 0 ? static_cast<size_t>(nAll) : 0);
    if (nMaxLength > 0 && nLength > nMaxLength)
        nLength = nMaxLength;
    if (nLength >= m_nRoom)
    {
        if (reserve(nLength))
            vsnprintf(m_pBuffer + HEAD_ROOM + m_nLength, m_nRoom - m_nLength, pszFormat, again);
        else
            nLength = m_nRoom - 1;
    }
    va_end(again);
    m_nLength = nLength;
    m_pBuffer[HEAD_ROOM + m_nLength] = '\0';
}

bool CLogText::reserve(size_t nLength)
{
    const size_t nRoom = nLength + 1;
    std::unique_ptr<char[]> pHeap(new (std::nothrow) char[HEAD_ROOM + nRoom]);
    if (!pHeap)
        return false;
    memcpy(pHeap.get() + HEAD_ROOM, m_pBuffer + HEAD_ROOM, m_nLength);
    m_pHeap = std::move(pHeap);
    m_pBuffer = m_pHeap.get();
    m_nRoom = nRoom;
    return true;
}

void CLogText::makeOneLine()
{
    blankControls(m_pBuffer + HEAD_ROOM, m_nLength);
}

const char* CLogText::asLine(const char* pHead, size_t nHead)
{
    char* const pLine = m_pBuffer + HEAD_ROOM - nHead;
    memcpy(pLine, pHead, nHead);
    m_pBuffer[HEAD_ROOM + m_nLength] = '\n';
    return pLine;
}

} // namespace OrvLogLib
