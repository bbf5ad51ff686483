// A voicemail box on one call: greets the caller, tells the number of messages, records a message.
//
//   voicemail PROMPTS RECORDING [CALLID]
//
// PROMPTS is a folder with prompts/greeting.wav, phrases.ul and phrases.index; RECORDING is the file
// to record into; both as the media driver sees them, so give absolute paths.
#include "OrvException.h"
#include "ZelMediaServices.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace
{
const unsigned long LEG = 1;
const unsigned long TIMEOUT_S = 30;
const unsigned long MAX_MESSAGE_S = 20;
typedef std::chrono::steady_clock Clock;
const Clock::time_point s_start = Clock::now();

void say(const std::string& strText)
{
    const std::chrono::duration<double> elapsed = Clock::now() - s_start;
    std::printf("%7.3f s  %s\n", elapsed.count(), strText.c_str());
    std::fflush(stdout);
}

struct CFailure
{
    std::string m_strText;
};

void check(const char* pszWhat, int nStatus)
{
    if (nStatus != MCS_OK)
        throw CFailure{std::string(pszWhat) + ": " + MCSTATUSToString(nStatus) + " (" + std::to_string(nStatus) + ")"};
}

// Hands the completions from the library's event thread to ours.
class CCompletions : public CZelMediaStreamCompletionHandler
{
public:
    void OnMediaStreamCompletion(CZelMediaStream*, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) override
    {
        say(std::string("completed: ") +
            (reason == MCCR_PLAY     ? "play"
             : reason == MCCR_RECORD ? "record"
                                     : "other") +
            ", " + MCSTATUSToString(mcstatus));
        std::lock_guard<std::mutex> hold(m_mutex);
        m_statuses.push_back(mcstatus);
        m_arrived.notify_all();
    }

    bool waitNext(std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> hold(m_mutex);
        if (!m_arrived.wait_for(hold, limit, [this] { return !m_statuses.empty(); }))
            return false;
        const MCSTATUS mcstatus = m_statuses.front();
        m_statuses.pop_front();
        check("the operation ended with", mcstatus);
        return true;
    }

    void waitNext()
    {
        // The library ends every operation at its time-out at the latest.
        if (!waitNext(std::chrono::seconds(TIMEOUT_S + 15)))
            throw CFailure{"no completion"};
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::deque<MCSTATUS> m_statuses;
};

struct CPhrase
{
    unsigned long m_ulOffset, m_ulLength; // samples
};

// The index has a line "name offset length" for each phrase.
std::map<std::string, CPhrase> readIndex(const std::string& strFile)
{
    std::map<std::string, CPhrase> phrases;
    std::ifstream index(strFile);
    std::string strName;
    CPhrase phrase;
    while (index >> strName >> phrase.m_ulOffset >> phrase.m_ulLength)
        phrases[strName] = phrase;
    if (phrases.empty())
        throw CFailure{"no phrases in " + strFile};
    return phrases;
}

// The driver may still be starting: until it is connected every request ends with MCS_NOTCONNECTED.
unsigned long openPhrases(CZelMediaServices& services, std::string strFile)
{
    const Clock::time_point giveUp = Clock::now() + std::chrono::seconds(15);
    for (;;)
    {
        unsigned long ulFileID;
        const int nStatus = services.openPhraseFile(&strFile[0], &ulFileID);
        if (nStatus == MCS_OK)
            return ulFileID;
        services.closePhraseFile(ulFileID);
        if (nStatus != MCS_NOTCONNECTED || Clock::now() > giveUp)
            check("opening the phrase file", nStatus);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

struct CStreamCloser
{
    CZelMediaServices* m_pServices;
    void operator()(CZelMediaStream* pStream) const { m_pServices->closeMediaStream(pStream); }
};

void takeCall(CZelMediaStream& stream, CCompletions& completions, unsigned long ulPhrases,
              const std::map<std::string, CPhrase>& phrases, const std::string& strPrompts, std::string strRecording)
{
    const auto play = [&](const char* pszName) {
        say(std::string("play phrase ") + pszName);
        const CPhrase& phrase = phrases.at(pszName);
        check("playAddPhrase", stream.playAddPhrase(ulPhrases, phrase.m_ulOffset, phrase.m_ulLength, TIMEOUT_S, 0, 0));
    };

    say("play greeting.wav");
    std::string strGreeting = strPrompts + "/prompts/greeting.wav";
    check("playAddFile", stream.playAddFile(&strGreeting[0], 0, TIMEOUT_S, 0, 0, 0));
    completions.waitNext();

    // The second phrase waits in the stream's queue until the first has ended.
    play("you-have");
    play("two-new-messages");
    completions.waitNext();
    completions.waitNext();

    say("record " + strRecording + " after the prompt");
    const CPhrase& prompt = phrases.at("record-prompt");
    check("recordToFileWithPromptPhrase",
          stream.recordToFileWithPromptPhrase(ulPhrases, prompt.m_ulOffset, prompt.m_ulLength, &strRecording[0], 0,
                                              MAX_MESSAGE_S, TIMEOUT_S, 0));
    completions.waitNext(); // the prompt; the recording starts with it
    while (!completions.waitNext(std::chrono::milliseconds(500)))
    {
        unsigned long ulMilliSeconds = 0;
        check("recordGetTimeMilliseconds", stream.recordGetTimeMilliseconds(&ulMilliSeconds));
        say("recorded so far: " + std::to_string(ulMilliSeconds) + " ms");
    }
    play("goodbye");
    completions.waitNext();
}
} // namespace

int main(int argc, char** argv)
try
{
    if (argc < 3 || argc > 4)
    {
        std::fprintf(stderr, "usage: voicemail PROMPTS RECORDING [CALLID]\n");
        return 2;
    }
    const std::string strPrompts = argv[1];
    const std::map<std::string, CPhrase> phrases = readIndex(strPrompts + "/phrases.index");

    CCompletions completions;
    CZelMediaServices services(&completions);
    const unsigned long ulPhrases = openPhrases(services, strPrompts + "/phrases.ul");
    CZelMediaStream* pStream = nullptr;
    check("openMediaStream", services.openMediaStream(&pStream, argc > 3 ? argv[3] : "voicemail", LEG));
    std::unique_ptr<CZelMediaStream, CStreamCloser> stream(pStream, CStreamCloser{&services});
    say("connected, the channel is open");
    takeCall(*stream, completions, ulPhrases, phrases, strPrompts, argv[2]);
    stream.reset();
    check("closePhraseFile", services.closePhraseFile(ulPhrases));
    say("closed");
    return 0;
}
catch (const CFailure& failure)
{
    std::fprintf(stderr, "voicemail: %s\n", failure.m_strText.c_str());
    return 1;
}
catch (const OrvException& exception)
{
    std::fprintf(stderr, "voicemail: no media services: %s\n", exception.what());
    return 1;
}
