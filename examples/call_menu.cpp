// A voice menu for callers: tells the number of messages, deletes one, says goodbye. A key interrupts what is playing.
//
//   call_menu PHRASES [--sip-socket PATH]
//
// The caller presses 1 to hear the number again, 2 to delete a message, 9 to end the call. PHRASES is a folder with
// phrases.ul and phrases.index; the media driver opens the former: give an absolute path. Ends at SIGTERM.
#include "CallMain.h"
#include "PhraseBook.h"

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace
{
const unsigned long TIMEOUT_S = 60;

class CMenu
{
public:
    CMenu(CZelMediaServices& media, CZelCallServices& calls, const std::vector<std::string>& arguments)
        : m_media(media), m_calls(calls), m_phrases(media, arguments[0])
    {
    }
    ~CMenu()
    {
        while (!m_callers.empty())
        {
            m_calls.hangUp(m_callers.begin()->second.m_call);
            forget(m_callers.begin()->second.m_call.m_strCallID);
        }
    }

    void handle(const CCallEvent& event)
    {
        const std::string& strCall = event.m_call.m_strCallID;
        switch (event.m_eKind)
        {
        case CCallEvent::OFFERED: m_calls.answer(event.m_call); break;
        case CCallEvent::ANSWERED: welcome(event.m_call); break;
        case CCallEvent::DIGIT:
            if (m_callers.count(strCall) != 0)
                choose(m_callers[strCall], event.m_strText[0]);
            break;
        case CCallEvent::PLAYED: onPlayed(event.m_pStream); break;
        case CCallEvent::ENDED: forget(strCall); break;
        default: break;
        }
    }

private:
    struct CCaller
    {
        CZelCallInfo m_call;
        CZelMediaStream* m_pStream;
        int m_nMessages;
        bool m_bLeaving;
        bool m_bPlaying;
        std::vector<std::string> m_next; // to be played when what is cancelled has ended
    };

    void welcome(const CZelCallInfo& call)
    {
        CCaller caller = {call, nullptr, 2, false, false, {}};
        const int nStatus = m_media.openMediaStream(&caller.m_pStream, call.m_strCallID, call.m_ulLegID);
        if (nStatus != MCS_OK)
        {
            std::printf("no channel for %s: %s\n", call.m_strCallID.c_str(), MCSTATUSToString(nStatus));
            m_calls.hangUp(call);
            return;
        }
        m_callers[call.m_strCallID] = caller;
        play(m_callers[call.m_strCallID], news(caller));
    }

    static std::vector<std::string> news(const CCaller& caller)
    {
        static const char* const s_apszNews[] = {"no-new-messages", "one-new-message", "two-new-messages"};
        return {"you-have", s_apszNews[caller.m_nMessages]};
    }

    // A play that were queued before the cancelled one has ended would be dropped with it.
    void play(CCaller& caller, const std::vector<std::string>& names)
    {
        if (caller.m_bPlaying)
        {
            caller.m_next = names;
            caller.m_pStream->playCancel();
            return;
        }
        caller.m_bPlaying = true;
        for (const std::string& strName : names)
        {
            std::printf("play %s\n", strName.c_str());
            const int nFlag = &strName == &names.back() ? 0 : 1; // one completion for all of them
            if (m_phrases.play(*caller.m_pStream, strName, TIMEOUT_S, nFlag) != MCS_OK)
                m_calls.hangUp(caller.m_call);
        }
    }

    void choose(CCaller& caller, char cDigit)
    {
        if (caller.m_bLeaving || (cDigit != '1' && cDigit != '2' && cDigit != '9'))
            return;
        if (cDigit == '2' && caller.m_nMessages > 0)
            --caller.m_nMessages;
        caller.m_bLeaving = cDigit == '9';
        play(caller, caller.m_bLeaving ? std::vector<std::string>{"goodbye"} : news(caller));
    }

    void onPlayed(CZelMediaStream* pStream)
    {
        for (auto& item : m_callers)
        {
            CCaller& caller = item.second;
            if (caller.m_pStream != pStream)
                continue;
            caller.m_bPlaying = false;
            if (!caller.m_next.empty())
                play(caller, std::vector<std::string>(std::move(caller.m_next)));
            else if (caller.m_bLeaving)
                m_calls.hangUp(caller.m_call);
        }
    }

    void forget(const std::string& strCall)
    {
        const auto it = m_callers.find(strCall);
        if (it == m_callers.end())
            return;
        m_media.closeMediaStream(it->second.m_pStream);
        m_callers.erase(it);
    }

    CZelMediaServices& m_media;
    CZelCallServices& m_calls;
    const CPhraseBook m_phrases;
    std::map<std::string, CCaller> m_callers;
};
} // namespace

int main(int argc, char** argv)
{
    return runCalls<CMenu>(argc, argv, 1, "call_menu PHRASES");
}
