// What each status means, when it arises, and what to do: what zelmedia explain tells.
#include "explain/StatusTable.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <numeric>
#include <string_view>

namespace
{
constexpr std::string_view PREFIX = "MCS_";

std::string upper(std::string strText)
{
    std::transform(strText.begin(), strText.end(), strText.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return strText;
}

// The name as it is in the header, whatever was left out.
std::string fullName(const std::string& strName)
{
    const std::string strUpper = upper(strName);
    return strUpper.starts_with(PREFIX) ? strUpper : std::string(PREFIX) + strUpper;
}

// How many letters have to be put in, left out or changed.
size_t distance(const std::string& strText, const std::string& strName)
{
    std::array<size_t, 32> row = {}; // names are shorter
    const size_t nName = std::min(strName.size(), row.size() - 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (const char c : strText)
    {
        size_t nDiagonal = row[0]++;
        for (size_t nLetter = 0; nLetter < nName; ++nLetter)
        {
            const size_t nChanged = nDiagonal + (c == strName[nLetter] ? 0 : 1);
            nDiagonal = row[nLetter + 1];
            row[nLetter + 1] = std::min({nChanged, nDiagonal + 1, row[nLetter] + 1});
        }
    }
    return row[nName];
}
} // namespace

const std::vector<CStatusEntry>& statusTable()
{
    static const std::vector<CStatusEntry> s_vTable = {
        {MCS_OK, "MCS_OK", "Done, accepted, or queued; as a completion: ended well.",
         "A call did what it says. A play or record was taken by the driver, or waits behind another one; it may "
         "still fail, and is reported then.",
         "Nothing."},
        {1, nullptr, "The file or the disk failed.",
         "The completion of a play or record: what is recorded or heard cannot be written, or what is played turned "
         "out damaged. The queue of the stream is dropped.",
         "Look into the driver's log, at the file, and at the room on the disk."},
        {MCS_INVALIDHANDLE, "MCS_INVALIDHANDLE", "There is no place for the answer.",
         "openMediaStream was given a null pointer for the stream. A stream that was lost with the pipes answers "
         "MCS_NOTINITIALIZED.",
         "Correct the call."},
        {MCS_CANCELLED, "MCS_CANCELLED", "Ended early by a cancel.",
         "The completion of a play or record that playCancel or recordCancel has ended. Its elapsed time counts all "
         "the same.",
         "Go on; what was queued behind it is gone, without completions."},
        {MCS_OUTOFMEMORY, "MCS_OUTOFMEMORY", "No memory for the operation.", "A command or a stream could not be made.",
         "Release memory. After openMediaStream close the stream if there is one."},
        {5, nullptr, "The caller has hung up.",
         "The completion of a play or record whose call was hung up. The stream takes no further plays and records: "
         "they are refused.",
         "Close the stream."},
        {MCS_THREADFAILED, "MCS_THREADFAILED", "The event thread could not be started.",
         "The first services object of the process; it is seen in the log only, the calls answer MCS_NOTCONNECTED.",
         "Look at the limits on processes and memory, then restart the process."},
        {MCS_LOCKFAILED, "MCS_LOCKFAILED", "The locks could not be made.",
         "The first services object of the process, when memory is short. Applications do not see it and the log has "
         "no "
         "line of it: the calls answer MCS_NOTCONNECTED.",
         "Restart the process."},
        {MCS_NORESPONSE, "MCS_NORESPONSE", "The driver did not answer this request in time.",
         "No answer came within 10 s, or the driver answered other requests five times. All plays of the process "
         "complete with this status, and all queues are dropped; the connection stays.",
         "The driver may have carried the request out: close the stream, open it again. See with zelmedia status "
         "whether the driver answers at all."},
        {MCS_REFUSED, "MCS_REFUSED", "The driver refused the request.",
         "For instance: a file that it cannot open, a call that it does not serve or that is open already, a second "
         "play behind the library's back, a call that was hung up.",
         "The driver's log says why."},
        {MCS_UNKNOWNPHRASEFILE, "MCS_UNKNOWNPHRASEFILE", "No such phrase file.",
         "The id is not one that openPhraseFile gave, or the driver has not got that file open: it refused it, or "
         "it restarted and refused one of the files then. Nothing was sent.",
         "Check the file, close it as often as it was opened, open it again."},
        {MCS_PIPECREATE, "MCS_PIPECREATE", "The response or event pipe could not be made.",
         "A pipe of an ended process with the same process id is still in /tmp, or /tmp cannot be written. It is "
         "seen in the log, the calls answer MCS_NOTCONNECTED. As a completion, it ends the stream.",
         "Remove stale pipes with zelmedia clean, then restart the process."},
        {MCS_PIPEOPEN, "MCS_PIPEOPEN", "The response or event pipe could not be opened.",
         "The limit of open files is reached, or the umask takes the process the right to its own pipes. It is seen "
         "in the log, the calls answer MCS_NOTCONNECTED. As a completion, it ends the stream.",
         "Check /tmp and the limit of open files, then restart the process."},
        {MCS_PIPEREAD, "MCS_PIPEREAD", "Reading or waiting on the response pipe failed: the driver is gone.",
         "A response was short, or the pipe broke. The request pipe is closed, streams that played or recorded become "
         "unusable.",
         "Close all streams, open new ones once connected."},
        {MCS_PIPEWRITE, "MCS_PIPEWRITE", "Writing the request failed: the driver is gone or hangs.",
         "The driver ended or restarted, or it lives and its request pipe is full. All queues are dropped, "
         "streams that played or recorded become unusable, and their plays get no completion.",
         "Close all streams, open new ones once connected. zelmedia status tells whether a driver is there."},
        {MCS_TIMEDOUT, "MCS_TIMEDOUT", "The play or record passed its time-out and was cancelled.",
         "The completion of a play or record that ran for longer than its time-out. A plain recordToFile always ends "
         "with it.",
         "What was queued on the stream is gone, and what is queued before the driver's own event for the end has come "
         "is dropped without completions: play one at a time, with flag 0, until one ends with another status. If it "
         "should have ended before: give a longer time-out, or see whether the driver has lost its end."},
        {MCS_NOTCONNECTED, "MCS_NOTCONNECTED", "The media driver is not running, or this process is not connected.",
         "Within the first second of the process, while no driver runs, and until the library has connected again "
         "after one ended. For ever when the pipes could not be made, or when the driver refused or did not "
         "answer the connect.",
         "Try again in a second. If it stays: zelmedia status, then zelmedia clean, then restart the process."},
        {MCS_NOTINITIALIZED, "MCS_NOTINITIALIZED", "The stream has no channel at the driver (any more).",
         "The stream played or recorded when the driver was lost, or was never opened.", "Close it, open a new one."},
        {MCS_NOTSUPPORTED, "MCS_NOTSUPPORTED", "Playing from and recording into memory.",
         "playAddBuffer, recordToBuffer and recordToBufferWithPromptPhrase always answer it.", "Use files."},
    };
    return s_vTable;
}

const CStatusEntry* findStatus(MCSTATUS mcstatus)
{
    for (const CStatusEntry& entry : statusTable())
        if (entry.mcstatus == mcstatus)
            return &entry;
    return nullptr;
}

const CStatusEntry* findStatus(const std::string& strName)
{
    for (const CStatusEntry& entry : statusTable())
        if (entry.pszName && entry.pszName == fullName(strName))
            return &entry;
    return nullptr;
}

std::vector<std::string> closestStatusNames(const std::string& strName)
{
    const std::string strMeant = fullName(strName).substr(PREFIX.size());
    size_t nBest = std::max<size_t>(strMeant.size() / 2, 1); // with more than half of it wrong it is another word
    std::vector<std::string> vNames;
    for (const CStatusEntry& entry : statusTable())
    {
        if (!entry.pszName)
            continue;
        const std::string strShort = std::string(entry.pszName).substr(PREFIX.size());
        const bool bPart = strMeant.size() >= 3 && strShort.find(strMeant) != std::string::npos;
        const size_t nDistance = bPart ? 1 : distance(strMeant, strShort);
        if (nDistance < nBest)
            vNames.clear();
        if (nDistance <= nBest)
            vNames.push_back(entry.pszName);
        nBest = std::min(nBest, nDistance);
    }
    return vNames;
}
