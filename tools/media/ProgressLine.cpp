// CProgressLine: one line of a terminal that is drawn again and again in its place.
#include "media/ProgressLine.h"

#include "base/Terminal.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

namespace
{
constexpr size_t MAX_BAR = 40;
constexpr size_t MIN_BAR = 5;

bool startsCharacter(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
}

size_t charactersIn(const std::string& strText)
{
    return static_cast<size_t>(std::count_if(strText.begin(), strText.end(), startsCharacter));
}

// The first characters, with nothing among them that moves the cursor.
std::string cut(const std::string& strText, size_t nCharacters)
{
    std::string strCut;
    for (const char c : strText)
    {
        if (startsCharacter(c) && nCharacters-- == 0)
            break;
        strCut += (c >= 0 && c < ' ') || c == '\177' ? '?' : c;
    }
    return strCut;
}

std::string tenths(CMilliseconds duration)
{
    return fmt::format("{:.1f}", std::chrono::duration<double>(duration).count());
}

std::string bar(CMilliseconds position, CMilliseconds total, size_t nWidth)
{
    const double dPart =
        total.count() > 0 ? static_cast<double>(position.count()) / static_cast<double>(total.count()) : 1.0;
    const size_t nDone = static_cast<size_t>(std::clamp(dPart, 0.0, 1.0) * static_cast<double>(nWidth));
    return "[" + std::string(nDone, '#') + std::string(nWidth - nDone, '-') + "] ";
}
} // namespace

std::string progressText(const std::string& strLabel, CMilliseconds position, std::optional<CMilliseconds> total,
                         const std::string& strRest, int nColumns)
{
    // The last column stays free: a cursor beyond it begins a new line.
    const size_t nWidth = nColumns > 1 ? static_cast<size_t>(nColumns) - 1 : 1;
    const std::string strTimes = tenths(total ? std::min(position, *total) : position) +
                                 (total ? " / " + tenths(*total) : "") + " s" + (strRest.empty() ? "" : "  " + strRest);
    const size_t nTaken = strTimes.size() + 1;
    if (nTaken >= nWidth)
        return cut(strTimes, nWidth);
    const std::string strShown = cut(strLabel, std::min(nWidth - nTaken, nWidth / 2)) + " ";
    const size_t nFree = nWidth - std::min(nWidth, charactersIn(strShown) + strTimes.size());
    const bool bBar = total && nFree >= MIN_BAR + 3;
    return strShown + (bBar ? bar(position, *total, std::min(MAX_BAR, nFree - 3)) : "") + strTimes;
}

void CProgressLine::show(const std::string& strLabel, CMilliseconds position, std::optional<CMilliseconds> total,
                         const std::string& strRest)
{
    if (!m_bVisible)
        return;
    fmt::print("\r{}\033[K", progressText(strLabel, position, total, strRest, terminalColumns()));
    std::fflush(stdout);
    m_bShown = true;
}

void CProgressLine::clear()
{
    if (!m_bShown)
        return;
    fmt::print("\r\033[K");
    std::fflush(stdout);
    m_bShown = false;
}
