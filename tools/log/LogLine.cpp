// One line of the library's log: its head, and what its text says.
#include "log/LogLine.h"

#include <algorithm>
#include <charconv>
#include <vector>

namespace
{
// A format in the order in which a line is compared with it.
struct CPattern
{
    explicit CPattern(const CLogText& text)
        : m_text(text), m_strvFormat(std::string_view(text.m_pszFormat).substr(findClassName(text.m_pszFormat))),
          m_strvBegin(m_strvFormat.substr(0, m_strvFormat.find('%')))
    {
    }

    const CLogText& m_text;
    std::string_view m_strvFormat; // from the name of the class on
    std::string_view m_strvBegin;  // of that, up to the first conversion
};

const std::vector<CPattern>& patterns()
{
    static const std::vector<CPattern> s_vPatterns = [] {
        std::vector<CPattern> vPatterns;
        for (const CLogText& text : logTexts())
            vPatterns.emplace_back(text);
        return vPatterns;
    }();
    return s_vPatterns;
}

template <class NUMBER> bool takeNumber(std::string_view& strv, NUMBER& number, int nBase)
{
    const auto [pEnd, error] = std::from_chars(strv.data(), strv.data() + strv.size(), number, nBase);
    if (error != std::errc())
        return false;
    strv.remove_prefix(static_cast<size_t>(pEnd - strv.data()));
    return true;
}

bool takeSigned(std::string_view& strv, int& n)
{
    return takeNumber(strv, n, 10);
}

// The library writes numbers of 32 bits with and without a sign.
bool takeUnsigned(std::string_view& strv, uint32_t& u, int nBase)
{
    if (nBase == 10 && !strv.empty() && strv.front() == '-')
    {
        int n = 0;
        if (!takeSigned(strv, n))
            return false;
        u = static_cast<uint32_t>(n);
        return true;
    }
    return takeNumber(strv, u, nBase);
}

bool isNameCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '~';
}

std::string_view takeName(std::string_view& strv)
{
    size_t nLength = 0;
    while (nLength < strv.size() && isNameCharacter(strv[nLength]))
        ++nLength;
    const std::string_view strvName = strv.substr(0, nLength);
    strv.remove_prefix(nLength);
    return strvName;
}

// "MIRSP_STATUS", or "MIRSP unknown".
std::string_view takeCodeName(std::string_view& strv)
{
    const std::string_view strvName = takeName(strv);
    const std::string_view strvUnknown = " unknown";
    if (strv.starts_with(strvUnknown))
        strv.remove_prefix(strvUnknown.size());
    return strvName;
}

bool takeHexStatus(std::string_view& strv, int& n)
{
    uint32_t u = 0;
    const bool bTaken = takeUnsigned(strv, u, 16);
    n = static_cast<int>(u);
    return bTaken;
}

// Up to the last place of what comes next: texts may hold anything.
bool takeText(std::string_view& strv, std::string_view& strvText, std::string_view strvNext)
{
    const size_t nEnd = strv.rfind(strvNext);
    if (nEnd == std::string_view::npos)
        return false;
    strvText = strv.substr(0, nEnd);
    strv.remove_prefix(nEnd);
    return true;
}

bool takePlace(char cPlace, std::string_view strvNext, std::string_view& strv, CLogLine& line)
{
    switch (cPlace)
    {
    case 'S': return takeSigned(strv, line.m_nStream);
    case 'C': return takeSigned(strv, line.m_nStatus);
    case 'N': return takeUnsigned(strv, line.m_uSequence, 10);
    case 'L': return takeUnsigned(strv, line.m_uLeg, 10);
    case 'X': return takeHexStatus(strv, line.m_nStatus);
    case 'R': return takeHexStatus(strv, line.m_nReason);
    case 'A': return takeUnsigned(strv, line.m_uAddress, 16);
    case 'K': line.m_nCommand = commandFromName(takeCodeName(strv)); return true;
    case 'T': return takeText(strv, line.m_strvText, strvNext);
    case 'E': return strv.find_first_not_of(' ') == std::string_view::npos;
    default: takeCodeName(strv); return true;
    }
}

// Takes a conversion such as %08X from the front of a format; what comes behind it, up to the next one, stays.
void skipConversion(std::string_view& strvFormat)
{
    const size_t nLetter = strvFormat.find_first_not_of("%0123456789l");
    strvFormat.remove_prefix(std::min(nLetter, strvFormat.size() - 1) + 1);
}

bool matches(const CPattern& pattern, std::string_view strv, CLogLine& line)
{
    if (!strv.starts_with(pattern.m_strvBegin))
        return false;
    strv.remove_prefix(pattern.m_strvBegin.size());
    std::string_view strvFormat = pattern.m_strvFormat.substr(pattern.m_strvBegin.size());
    for (const char* pPlace = pattern.m_text.m_pszPlaces; *pPlace; ++pPlace)
    {
        if (!strvFormat.empty())
            skipConversion(strvFormat);
        const std::string_view strvNext = strvFormat.substr(0, strvFormat.find('%'));
        if (!takePlace(*pPlace, strvNext, strv, line))
            return false;
        if (!pPlace[1])
            return true;
        if (!strv.starts_with(strvNext))
            return false;
        strv.remove_prefix(strvNext.size());
        strvFormat.remove_prefix(strvNext.size());
    }
    return true;
}

// "CZelMediaStreamImpl::playAddFile (0xC02957A0), file hello.wav, startpos 0, timeout 30"
bool parseCall(std::string_view strv, CLogLine& line)
{
    const bool bStream = strv.starts_with(STREAM_CLASS);
    if (!bStream && !strv.starts_with(SERVICES_CLASS))
        return false;
    strv.remove_prefix(bStream ? STREAM_CLASS.size() : SERVICES_CLASS.size());
    line.m_strvName = takeName(strv);
    if (strv.starts_with(" result = "))
    {
        line.m_event = LOG_EVENT_CALL_RESULT;
        line.m_uKinds = LOG_KIND_RESPONSES;
        return true;
    }
    line.m_event = LOG_EVENT_CALL;
    line.m_uKinds = LOG_KIND_CALLS;
    if (strv.starts_with(" (0x"))
    {
        strv.remove_prefix(4);
        if (takeUnsigned(strv, line.m_uAddress, 16) && strv.starts_with(")"))
            strv.remove_prefix(1);
    }
    if (const std::string_view strvID = ", m_nStreamID ="; strv.starts_with(strvID))
    {
        strv.remove_prefix(strvID.size());
        takeSigned(strv, line.m_nStream);
    }
    strv.remove_prefix(std::min(strv.find_first_not_of(", "), strv.size()));
    line.m_strvText = strv;
    return true;
}

bool isLinesLost(std::string_view strv)
{
    uint32_t u = 0;
    return takeUnsigned(strv, u, 10) && (strv.starts_with(" line lost: ") || strv.starts_with(" lines lost: "));
}

void parseText(CLogLine& line)
{
    const std::string_view strv = line.m_strvLine;
    const size_t nName = findClassName(strv);
    if (nName == std::string_view::npos)
    {
        if (isLinesLost(strv))
        {
            line.m_event = LOG_EVENT_LINES_LOST;
            line.m_uKinds = LOG_KIND_ERRORS;
            line.m_strvText = strv;
        }
        return;
    }
    const std::string_view strvText = strv.substr(nName);
    bool bFound = false;
    for (const CPattern& pattern : patterns())
    {
        if (!matches(pattern, strvText, line))
            continue;
        line.m_event = pattern.m_text.m_event;
        line.m_uKinds = pattern.m_text.m_uKinds;
        line.m_bRecordSide = pattern.m_text.m_bRecordSide;
        bFound = true;
        break;
    }
    if (!bFound)
        parseCall(strvText, line);
    if (line.m_event == LOG_EVENT_ALARM)
        line.m_strvText = strvText;
    if (strv.substr(0, nName).find("(Error)") != std::string_view::npos)
        line.m_uKinds = line.m_uKinds == LOG_KIND_OTHER ? LOG_KIND_ERRORS : line.m_uKinds | LOG_KIND_ERRORS;
}
} // namespace

bool parseLogLine(std::string_view strvLine, CLogLine& line)
{
    line = CLogLine();
    line.m_llTime = takeLogTime(strvLine);
    if (line.m_llTime == NO_TIME || !takeCharacter(strvLine, ' ') || !takeCharacter(strvLine, 'p') ||
        !takeSigned(strvLine, line.m_nProcess) || !takeCharacter(strvLine, ' ') || !takeCharacter(strvLine, 't') ||
        !takeSigned(strvLine, line.m_nThread) || !takeCharacter(strvLine, ' ') ||
        !takeSigned(strvLine, line.m_nPriority) || !takeCharacter(strvLine, ' '))
        return false;
    line.m_strvLine = strvLine;
    parseText(line);
    return true;
}
