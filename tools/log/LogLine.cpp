// One line of the library's log: its head, and what its text says.
#include "log/LogLine.h"

#include "log/LogTime.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace
{
// The lines as the library writes them, from the first name of a class on. Behind a % stands what is there:
//   S stream, N sequence number, C status in decimal, X status in hexadecimal, A address, K name of a command,
//   R reason in hexadecimal, D any number or name, T any text up to the last occurrence of what follows, E the end.
struct CPattern
{
    constexpr CPattern(ELogEvent event, unsigned int uKinds, const char* pszText, bool bRecordSide = false)
        : m_event(event), m_uKinds(uKinds), m_strvText(pszText),
          m_strvBegin(m_strvText.substr(0, m_strvText.find('%'))), m_bRecordSide(bRecordSide)
    {
    }

    ELogEvent m_event;
    unsigned int m_uKinds;
    std::string_view m_strvText;
    std::string_view m_strvBegin; // of the text, up to the first %
    bool m_bRecordSide;
};

constexpr CPattern aPatterns[] = {
    {LOG_EVENT_DESTROYED, LOG_KIND_OTHER, "CCommand::~CCommand this = 0x%A"},
    {LOG_EVENT_CONSTRUCTED, LOG_KIND_OTHER, "CCommand::CCommand this = 0x%A"},

    {LOG_EVENT_NEW_COMMAND, LOG_KIND_OTHER, "CMIntf::sendCommand nStreamID = %S, pcommand = 0x%A"},
    {LOG_EVENT_REQUEST, LOG_KIND_REQUESTS, "CMIntf::sendCommand (%S), cmd %K"},
    {LOG_EVENT_RESULT, LOG_KIND_RESPONSES, "CMIntf::sendCommand (%S), rsp %D, mcstatus 0x%X"},
    {LOG_EVENT_SENDING, LOG_KIND_REQUESTS, "CMIntf::sendCommand - sending"},
    {LOG_EVENT_SENT_NUMBER, LOG_KIND_REQUESTS, "CMIntf::sendCommand, cmd %K, sequence number %N, m_nStreamID = %S"},
    {LOG_EVENT_RESPONSE, LOG_KIND_RESPONSES,
     "CMIntf::sendCommand, tried to get correct response, trycount = %D, psrsp->nRespSequenceNo = %N, "
     "psrsp->s_mirsp = "},
    {LOG_EVENT_WITHDRAWN, LOG_KIND_OTHER, "CMIntf::sendCommand - removing from active command"},
    {LOG_EVENT_DRIVER_LOST, LOG_KIND_CONNECTION | LOG_KIND_ERRORS, "CMIntf::sendCommand - closing request pipe"},
    {LOG_EVENT_DRIVER_SILENT, LOG_KIND_CONNECTION | LOG_KIND_ERRORS, "CMIntf::sendCommand - oops timeout clear cmd"},

    {LOG_EVENT_ENTERING, LOG_KIND_REQUESTS, "CMIntf::processPlayActiveCommand - Entering"},
    {LOG_EVENT_ENTERING, LOG_KIND_REQUESTS, "CMIntf::processRecordActiveCommand - Entering", true},
    {LOG_EVENT_QUEUED, LOG_KIND_REQUESTS, "CMIntf::processPlayActiveCommand - queueing"},
    {LOG_EVENT_QUEUED, LOG_KIND_REQUESTS, "CMIntf::processRecordActiveCommand - queueing", true},
    {LOG_EVENT_ACTIVE, LOG_KIND_REQUESTS, "CMIntf::processPlayActiveCommand - Current active command"},
    {LOG_EVENT_ACTIVE, LOG_KIND_REQUESTS, "CMIntf::processRecordActiveCommand - Current active command", true},
    {LOG_EVENT_NUMBERED, LOG_KIND_REQUESTS,
     "CMIntf::processPlayActiveCommand called, SequenceNo = %N, sid = %S, cmd = %K"},
    {LOG_EVENT_NUMBERED, LOG_KIND_REQUESTS,
     "CMIntf::processRecordActiveCommand called, SequenceNo = %N, sid = %S, cmd = %K", true},
    {LOG_EVENT_UNLINKED, LOG_KIND_OTHER, "CMIntf::CMIntf::remActiveCommand called, sid = %S, nSequenceIDParam = %N"},

    {LOG_EVENT_EVENT, LOG_KIND_EVENTS,
     "CMIntf::eventThreadFunc, read event, nSequenceID = (%N), nStreamID = (%S), evt %D, stat %C"},
    {LOG_EVENT_REPORTING, LOG_KIND_COMPLETIONS,
     "CMIntf::eventThreadFunc before OnCMIntfCompletion,m_pcomplHandler ,sid = %S, nSequenceID = %N"},
    {LOG_EVENT_REPORTING, LOG_KIND_COMPLETIONS,
     "CMIntf::eventThreadFunc  before OnCMIntfCompletion ,sid = %S, nSequenceID = %N"},
    {LOG_EVENT_REPORTING, LOG_KIND_COMPLETIONS,
     "CMIntf::eventThreadFunc  before OnCMIntfCompletion%D ,sid = %S, nSequenceID = %N"},
    {LOG_EVENT_COMPLETION, LOG_KIND_COMPLETIONS,
     "CZelMediaServicesImpl::OnCMIntfCompletion (0x%A), sid %S, status 0x%X, reason 0x%R"},
    {LOG_EVENT_TIMED_OUT, LOG_KIND_OTHER,
     "CMIntf::eventThreadFunc - Sending MICMD_CANCEL, m_nConnectID = %D, m_nStreamID = %S"},
    {LOG_EVENT_CONNECTED, LOG_KIND_CONNECTION, "CMIntf::eventThreadFunc, MICMD_CONNECT returned s_nConnectID"},
    {LOG_EVENT_CONNECTION, LOG_KIND_CONNECTION, "CMIntf::eventThreadFunc, about to open request pipe"},
    {LOG_EVENT_CONNECTION, LOG_KIND_CONNECTION, "CMIntf::eventThreadFunc, can't open request pipe"},
    {LOG_EVENT_CONNECTION, LOG_KIND_CONNECTION, "CMIntf::reopenClipFiles"},
    {LOG_EVENT_ALARM, LOG_KIND_ERRORS, "CMIntf::eventThreadFunc: ActiveCommand command timed out"},
    {LOG_EVENT_STREAM_LOST, LOG_KIND_ERRORS, "CMIntf::markStreamInvalid, cannot open/create/read/write pipe"},

    {LOG_EVENT_CANCEL, LOG_KIND_CALLS, "CMIntf::cancel, id %S"},
    {LOG_EVENT_OWN_COMPLETION, LOG_KIND_EVENTS,
     "CMIntf::setDone calling addActiveCommand called RECORD, seqno = %D, sid = %S"},
    {LOG_EVENT_STREAM_CLOSING, LOG_KIND_CALLS, "CMIntf::closeStream, id %S"},
    {LOG_EVENT_STREAM_CLEARED, LOG_KIND_OTHER, "CMIntf::closeStream, calling remActiveCommand id %S"},
    {LOG_EVENT_STREAM_OPENED, LOG_KIND_RESPONSES, "CMIntf::openConferenceStream (callid %T), streamid %S"},
    {LOG_EVENT_PROCESS_STARTED, LOG_KIND_CONNECTION, "CMIntf::initialize%E"},
    {LOG_EVENT_PROCESS_ENDING, LOG_KIND_CONNECTION, "CMIntf::finalize%E"},
    {LOG_EVENT_STREAM_ADDED, LOG_KIND_OTHER, "CZelMediaServicesImpl::addStream 0x%A, id %S"},
};

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

bool takeText(std::string_view& strv, std::string_view& strvText, std::string_view strvNext)
{
    const size_t nEnd = strv.rfind(strvNext.substr(0, strvNext.find('%')));
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
    case 'X': return takeHexStatus(strv, line.m_nStatus);
    case 'R': return takeHexStatus(strv, line.m_nReason);
    case 'A': return takeUnsigned(strv, line.m_uAddress, 16);
    case 'K': line.m_nCommand = commandFromName(takeCodeName(strv)); return true;
    case 'D': takeCodeName(strv); return true;
    case 'T': return takeText(strv, line.m_strvText, strvNext);
    default: return strv.find_first_not_of(' ') == std::string_view::npos;
    }
}

bool matches(std::string_view strvPattern, std::string_view strv, CLogLine& line)
{
    for (;;)
    {
        const size_t nLiteral = std::min(strvPattern.find('%'), strvPattern.size());
        if (!strv.starts_with(strvPattern.substr(0, nLiteral)))
            return false;
        strv.remove_prefix(nLiteral);
        strvPattern.remove_prefix(nLiteral);
        if (strvPattern.empty())
            return true;
        const char cPlace = strvPattern[1];
        strvPattern.remove_prefix(2);
        if (!takePlace(cPlace, strvPattern, strv, line))
            return false;
    }
}

// "CZelMediaStreamImpl::playAddFile (0xC02957A0), file hello.wav, startpos 0, timeout 30"
bool parseCall(std::string_view strv, CLogLine& line)
{
    const std::string_view strvStream = "CZelMediaStreamImpl::";
    const std::string_view strvServices = "CZelMediaServicesImpl::";
    const bool bStream = strv.starts_with(strvStream);
    if (!bStream && !strv.starts_with(strvServices))
        return false;
    strv.remove_prefix(bStream ? strvStream.size() : strvServices.size());
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

// Where the name of a class begins. Before it may stand a text that the log's owner put before each line.
size_t findClassName(std::string_view strv)
{
    for (size_t n = strv.find('C'); n != std::string_view::npos; n = strv.find('C', n + 1))
    {
        const std::string_view strvRest = strv.substr(n);
        if (strvRest.starts_with("CMIntf::") || strvRest.starts_with("CZelMedia") || strvRest.starts_with("CCommand::"))
            return n;
    }
    return std::string_view::npos;
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
    for (const CPattern& pattern : aPatterns)
    {
        if (strvText.starts_with(pattern.m_strvBegin) && matches(pattern.m_strvText, strvText, line))
        {
            line.m_event = pattern.m_event;
            line.m_uKinds = pattern.m_uKinds;
            line.m_bRecordSide = pattern.m_bRecordSide;
            bFound = true;
            break;
        }
    }
    if (!bFound)
        parseCall(strvText, line);
    if (line.m_event == LOG_EVENT_STREAM_LOST && strv.substr(0, nName).ends_with("ZelMediaServices "))
        line.m_event = LOG_EVENT_ALARM;
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
