// How trace shows commands, notes and lines: for people, and as JSON.
#include "trace/TraceText.h"

#include "MediaProtocol.h"
#include "ZelMediaServices.h"
#include "base/Terminal.h"

#include <fmt/format.h>

namespace
{
// What a file name brings along must not steer the terminal.
std::string harmless(std::string_view strv)
{
    std::string str(strv);
    char cBefore = 0;
    for (char& c : str)
    {
        // The control characters from 0x80 on are two bytes in UTF-8.
        const bool bSecond = cBefore == '\xC2' && static_cast<unsigned char>(c) < 0xA0;
        cBefore = c;
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F || bSecond)
            c = '?';
    }
    return str;
}

bool isCancelled(const CCommandLife& life)
{
    return life.m_bHasStatus && life.m_nStatus == MCS_CANCELLED;
}

EColour colourOf(const CCommandLife& life)
{
    switch (life.m_outcome)
    {
    case OUTCOME_OPEN: return COLOUR_BLUE;
    case OUTCOME_ANSWERED: return COLOUR_NONE;
    case OUTCOME_FAILED: return COLOUR_RED;
    case OUTCOME_DROPPED:
    case OUTCOME_NOT_SENT: return COLOUR_YELLOW;
    case OUTCOME_COMPLETED:
    case OUTCOME_ENDED: break;
    }
    return life.m_nStatus == MCS_OK ? COLOUR_GREEN : isCancelled(life) ? COLOUR_YELLOW : COLOUR_RED;
}

// "+1.204001 s" after the request.
std::string step(const char* pszName, int64_t llTime, const CCommandLife& life)
{
    if (llTime == NO_TIME)
        return "";
    if (life.m_llRequested == NO_TIME)
        return fmt::format("  {}", pszName);
    return fmt::format("  {} {:+.6f} s", pszName, static_cast<double>(llTime - life.m_llRequested) / 1e6);
}

std::string number(const CCommandLife& life)
{
    return life.m_uSequence == 0 ? "" : "#" + std::to_string(life.m_uSequence);
}

std::string name(const CCommandLife& life)
{
    if (life.m_nCommand == MICMD_NULL)
        return "OWN"; // a completion that the library gives without a request
    return life.m_nCommand == NO_COMMAND && !life.m_strCall.empty() ? life.m_strCall
                                                                    : shortCommandName(life.m_nCommand);
}

nlohmann::json timeJson(int64_t llTime)
{
    return llTime == NO_TIME ? nlohmann::json() : nlohmann::json(logTimeToString(llTime));
}

void putTime(nlohmann::json& json, const char* pszName, int64_t llTime)
{
    if (llTime != NO_TIME)
        json[pszName] = logTimeToString(llTime);
}
} // namespace

const char* outcomeName(EOutcome outcome)
{
    switch (outcome)
    {
    case OUTCOME_OPEN: return "open";
    case OUTCOME_ANSWERED: return "answered";
    case OUTCOME_FAILED: return "failed";
    case OUTCOME_COMPLETED: return "completed";
    case OUTCOME_ENDED: return "ended";
    case OUTCOME_DROPPED: return "dropped";
    case OUTCOME_NOT_SENT: return "not sent";
    }
    return "";
}

std::string outcomeText(const CCommandLife& life)
{
    std::string strText = outcomeName(life.m_outcome);
    if (life.m_outcome == OUTCOME_OPEN)
        strText = life.m_llSent != NO_TIME || life.m_llQueued == NO_TIME ? "still running" : "still in the queue";
    else if (life.m_bHasStatus && life.m_outcome != OUTCOME_DROPPED)
        strText += " " + statusName(life.m_nStatus);
    if (*life.m_pszWhy)
        strText += std::string(": ") + life.m_pszWhy;
    return strText;
}

std::string traceText(const CCommandLife& life)
{
    const int64_t llBegin = life.m_llRequested == NO_TIME ? life.m_llEnded : life.m_llRequested;
    std::string strText = coloured(COLOUR_GREY, fmt::format("{} p{}", logTimeToString(llBegin), life.m_nProcess)) + " ";
    const std::string strStream = life.m_nStream == NO_STREAM ? "-" : fmt::format("stream {}", life.m_nStream);
    strText += fmt::format("{:<10} {:<6} ", strStream, number(life));
    strText += coloured(COLOUR_BOLD, fmt::format("{:<12}", name(life)));
    if (!life.m_strDetail.empty())
        strText += " " + harmless(life.m_strDetail);
    strText += step("queued", life.m_llQueued, life) + step("sent", life.m_llSent, life) +
               step("answered", life.m_llAnswered, life);
    if (life.m_llEvent != NO_TIME && life.m_outcome != OUTCOME_ENDED)
        strText += step("event", life.m_llEvent, life);

    std::string strEnd = outcomeText(life);
    if (life.m_outcome == OUTCOME_ANSWERED)
        strEnd = statusName(life.m_nStatus); // the time stands there already
    else if (life.m_llEnded != NO_TIME && life.m_outcome != OUTCOME_NOT_SENT)
        strEnd.insert(std::string(outcomeName(life.m_outcome)).size(), step("", life.m_llEnded, life).erase(0, 2));
    return strText + "  " + coloured(colourOf(life), strEnd);
}

std::string traceText(const CLogNote& note)
{
    std::string strText =
        coloured(COLOUR_GREY, fmt::format("{} p{}", logTimeToString(note.m_llTime), note.m_nProcess)) + " ";
    if (note.m_nStream != NO_STREAM)
        strText += "stream " + std::to_string(note.m_nStream) + " ";
    const bool bGood = note.m_note == LOG_NOTE_PROCESS_STARTED || note.m_note == LOG_NOTE_PROCESS_ENDING ||
                       note.m_note == LOG_NOTE_CONNECTED;
    return strText + coloured(bGood ? COLOUR_BLUE : COLOUR_RED, "-- " + harmless(note.m_strText));
}

std::string traceText(const CLogLine& line, std::string_view strvWhole)
{
    const size_t nHead = strvWhole.size() - line.m_strvLine.size();
    EColour colour = COLOUR_NONE;
    if (line.m_uKinds & LOG_KIND_ERRORS)
        colour = COLOUR_RED;
    else if (line.m_uKinds & (LOG_KIND_EVENTS | LOG_KIND_COMPLETIONS))
        colour = COLOUR_GREEN;
    else if (line.m_uKinds & (LOG_KIND_CALLS | LOG_KIND_CONNECTION))
        colour = COLOUR_BLUE;
    return coloured(COLOUR_GREY, std::string(strvWhole.substr(0, nHead))) + coloured(colour, harmless(line.m_strvLine));
}

nlohmann::json traceJson(const CCommandLife& life)
{
    nlohmann::json json = {{"type", "command"},
                           {"process", life.m_nProcess},
                           {"command", life.m_nCommand == NO_COMMAND ? "unknown" : shortCommandName(life.m_nCommand)},
                           {"outcome", outcomeName(life.m_outcome)}};
    if (life.m_nStream != NO_STREAM)
        json["stream"] = life.m_nStream;
    if (life.m_uSequence != 0)
        json["sequence"] = life.m_uSequence;
    if (!life.m_strCall.empty())
        json["call"] = life.m_strCall;
    if (!life.m_strDetail.empty())
        json["detail"] = life.m_strDetail;
    putTime(json, "requested", life.m_llRequested);
    putTime(json, "queued", life.m_llQueued);
    putTime(json, "sent", life.m_llSent);
    putTime(json, "answered", life.m_llAnswered);
    putTime(json, "event", life.m_llEvent);
    putTime(json, "completed", life.m_llCompleted);
    putTime(json, "ended", life.m_llEnded);
    if (life.m_bHasStatus)
    {
        json["status"] = life.m_nStatus;
        json["status_name"] = statusName(life.m_nStatus);
    }
    if (*life.m_pszWhy)
        json["why"] = life.m_pszWhy;
    return json;
}

nlohmann::json traceJson(const CLogNote& note)
{
    nlohmann::json json = {
        {"type", "note"}, {"process", note.m_nProcess}, {"time", timeJson(note.m_llTime)}, {"text", note.m_strText}};
    if (note.m_nStream != NO_STREAM)
        json["stream"] = note.m_nStream;
    return json;
}

nlohmann::json traceJson(const CLogLine& line)
{
    nlohmann::json json = {{"type", "line"},           {"time", timeJson(line.m_llTime)}, {"process", line.m_nProcess},
                           {"thread", line.m_nThread}, {"priority", line.m_nPriority},    {"text", line.m_strvLine}};
    if (line.m_nStream != NO_STREAM)
        json["stream"] = line.m_nStream;
    if (line.m_nCommand != NO_COMMAND)
        json["command"] = shortCommandName(line.m_nCommand);
    return json;
}
