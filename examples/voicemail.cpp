// A voicemail box on one call: greets the caller, tells the number of messages, records a message.
//
//   voicemail PROMPTS RECORDING [CALLID]
//
// PROMPTS is a folder with prompts/greeting.wav, phrases.ul and phrases.index; RECORDING is the file
// to record into; both as the media driver sees them, so give absolute paths.
#include "PhraseBook.h"
#include "ZelMediaServices.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

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

// Hands the completions from the library's event thread to ours.
class CCompletions : public CZelMediaStreamCompletionHandler
{
public:
    void OnMediaStreamCompletion(CZelMediaStream*, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) override
    {
        const char* const pszWhat = reason == MCCR_PLAY ? "play" : reason == MCCR_RECORD ? "record" : "other";
        say(std::string("completed: ") + pszWhat + ", " + MCSTATUSToString(mcstatus));
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
            throw std::runtime_error("no completion");
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::deque<MCSTATUS> m_statuses;
};

struct CStreamCloser
{
    CZelMediaServices* m_pServices;
    void operator()(CZelMediaStream* pStream) const { m_pServices->closeMediaStream(pStream); }
};

void takeCall(CZelMediaStream& stream, CCompletions& completions, const CPhraseBook& phrases, std::string strGreeting,
              std::string strRecording)
{
    const auto play = [&](const char* pszName) {
        say(std::string("play phrase ") + pszName);
        check("playAddPhrase", phrases.play(stream, pszName, TIMEOUT_S, 0));
    };

    say("play greeting.wav");
    check("playAddFile", stream.playAddFile(&strGreeting[0], 0, TIMEOUT_S, 0, 0, 0));
    completions.waitNext();

    // The second phrase waits in the stream's queue until the first has ended.
    play("you-have");
    play("two-new-messages");
    completions.waitNext();
    completions.waitNext();

    say("record " + strRecording + " after the prompt");
    const CPhraseBook::CPhrase& prompt = phrases.find("record-prompt");
    check("recordToFileWithPromptPhrase",
          stream.recordToFileWithPromptPhrase(phrases.fileID(), prompt.m_ulOffset, prompt.m_ulLength, &strRecording[0],
                                              0, MAX_MESSAGE_S, TIMEOUT_S, 0));
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
    CCompletions completions;
    CZelMediaServices services(&completions);
    const CPhraseBook phrases(services, strPrompts);
    CZelMediaStream* pStream = nullptr;
    check("openMediaStream", services.openMediaStream(&pStream, argc > 3 ? argv[3] : "voicemail", LEG));
    std::unique_ptr<CZelMediaStream, CStreamCloser> stream(pStream, CStreamCloser{&services});
    say("connected, the channel is open");
    takeCall(*stream, completions, phrases, strPrompts + "/prompts/greeting.wav", argv[2]);
    stream.reset();
    say("closed");
    return 0;
}
catch (const std::exception& exception) // OrvException, too
{
    std::fprintf(stderr, "voicemail: %s\n", exception.what());
    return 1;
}
