// A voice menu: tells the number of new messages, deletes one, says goodbye. A digit interrupts what is playing.
//
//   ivr_menu PROMPTS [CALLID]
//
// Digits come from the standard input: 1 tells the number again, 2 deletes a message, 9 ends the call. PROMPTS is a
// folder with phrases.ul and phrases.index; the media driver opens the former: give an absolute path.
#include "PhraseBook.h"
#include "ZelMediaServices.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{
const unsigned long LEG = 1;
const unsigned long TIMEOUT_S = 60;

void say(const std::string& strText)
{
    std::printf("%s\n", strText.c_str());
    std::fflush(stdout);
}

class CMenu : public CZelMediaStreamCompletionHandler
{
public:
    // Queues the phrases; the end is reported once: of the last one, or of the one that fails or is cancelled.
    void play(CZelMediaStream& stream, const CPhraseBook& phrases, const std::vector<std::string>& vNames)
    {
        {
            std::lock_guard<std::mutex> hold(m_mutex);
            m_bPlaying = true;
        }
        for (const std::string& strName : vNames)
        {
            say("play " + strName);
            check("playAddPhrase", phrases.play(stream, strName, TIMEOUT_S, &strName == &vNames.back() ? 0 : 1));
        }
    }

    // On the library's event thread.
    void OnMediaStreamCompletion(CZelMediaStream*, MCSTATUS mcstatus, MCCOMPLETION_REASON) override
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_bPlaying = false;
        m_mcstatus = mcstatus;
        m_ended.notify_all();
    }

    // Whether what plays has ended by then.
    bool waitEnd(std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> hold(m_mutex);
        return m_ended.wait_for(hold, limit, [this] { return !m_bPlaying; });
    }

    // Ends what plays and what is queued, and waits for the completion: a play that is queued before it would be
    // dropped by it. Where a phrase ends in this very moment the cancel may come before the next one has begun, and
    // is repeated.
    void bargeIn(CZelMediaStream& stream)
    {
        for (int nWaitMs = 0; !waitEnd(std::chrono::milliseconds(nWaitMs)) && nWaitMs < 3000; nWaitMs += 250)
            check("playCancel", stream.playCancel());
    }

    // How the last row of phrases ended.
    MCSTATUS status()
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        return m_mcstatus;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_bPlaying = false;
    MCSTATUS m_mcstatus = MCS_OK;
};

void takeCall(CZelMediaStream& stream, CMenu& menu, const CPhraseBook& phrases)
{
    static const char* const s_apszNews[] = {"no-new-messages", "one-new-message", "two-new-messages"};
    int nMessages = 2;
    menu.play(stream, phrases, {"you-have", s_apszNews[nMessages]});
    for (int nDigit; (nDigit = std::getchar()) != EOF;)
    {
        if (nDigit != '1' && nDigit != '2' && nDigit != '9')
            continue;
        const bool bPlaying = !menu.waitEnd(std::chrono::milliseconds(0));
        menu.bargeIn(stream);
        say(std::string("digit ") + static_cast<char>(nDigit) + (bPlaying ? ", barged in: " : ", after the end: ") +
            MCSTATUSToString(menu.status()));
        if (nDigit == '9')
            break;
        if (nDigit == '2')
            nMessages = std::max(nMessages - 1, 0);
        menu.play(stream, phrases, {"you-have", s_apszNews[nMessages]});
    }
    menu.bargeIn(stream);
    menu.play(stream, phrases, {"goodbye"});
    if (!menu.waitEnd(std::chrono::seconds(TIMEOUT_S + 15)))
        throw std::runtime_error("no completion");
    check("the goodbye ended with", menu.status());
}
} // namespace

int main(int argc, char** argv)
try
{
    if (argc < 2 || argc > 3)
    {
        std::fprintf(stderr, "usage: ivr_menu PROMPTS [CALLID]\n");
        return 2;
    }
    CMenu menu; // outlives the services
    CZelMediaServices services(&menu);
    const CPhraseBook phrases(services, argv[1]);
    CZelMediaStream* pStream = nullptr;
    check("openMediaStream", services.openMediaStream(&pStream, argc > 2 ? argv[2] : "menu", LEG));
    int nExit = 0;
    try
    {
        takeCall(*pStream, menu, phrases);
    }
    catch (const std::exception& exception)
    {
        std::fprintf(stderr, "ivr_menu: the call has ended: %s\n", exception.what());
        nExit = 1;
    }
    services.closeMediaStream(pStream);
    return nExit;
}
catch (const std::exception& exception) // OrvException, too
{
    std::fprintf(stderr, "ivr_menu: %s\n", exception.what());
    return 1;
}
