// An answering machine for any number of calls: greets, records until a # or the end of the call, thanks, hangs up.
//
//   answering_machine GREETING FOLDER [--sip-socket PATH]
//
// GREETING is an audio file; beside it goodbye.wav is played as thanks, if it is there. Messages go to
// FOLDER/CALLID.wav. The media driver opens all of them: give absolute paths. Ends at SIGTERM.
#include "CallMain.h"
#include "ZelCallServices.h"
#include "ZelMediaServices.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace
{
const unsigned long WHOLE_FILE = 0x7FFFFFFF; // samples: what is there
const unsigned long MAX_MESSAGE_S = 60;
const unsigned long TIMEOUT_S = 120;

class CAnsweringMachine
{
public:
    CAnsweringMachine(CZelMediaServices& media, CZelCallServices& calls, const std::vector<std::string>& arguments)
        : m_media(media), m_calls(calls), m_strFolder(arguments[1]),
          m_strThanks(arguments[0].substr(0, arguments[0].rfind('/') + 1) + "goodbye.wav")
    {
        std::string strFile = arguments[0];
        m_media.openPhraseFile(&strFile[0], &m_ulGreeting); // also when the driver is still to come
    }
    ~CAnsweringMachine()
    {
        while (!m_machines.empty())
            hangUp(m_machines.begin()->first);
        m_media.closePhraseFile(m_ulGreeting);
    }

    void handle(const CCallEvent& event)
    {
        switch (event.m_eKind)
        {
        case CCallEvent::OFFERED: m_calls.answer(event.m_call); break;
        case CCallEvent::ANSWERED: greet(event.m_call); break;
        case CCallEvent::DIGIT:
            if (event.m_strText == "#")
                endMessage(event.m_call);
            break;
        case CCallEvent::RECORDED: thank(event.m_pStream); break;
        case CCallEvent::PLAYED: onPlayed(event.m_pStream, event.m_nStatus); break;
        case CCallEvent::ENDED: forget(event.m_call); break;
        default: break;
        }
    }

private:
    struct CMachine
    {
        CZelCallInfo m_call;
        bool m_bThanking;
    };

    // The greeting is the prompt of the recording, so the recording's end is told when it happens.
    void greet(const CZelCallInfo& call)
    {
        CZelMediaStream* pStream = nullptr;
        std::string strFile = m_strFolder + '/' + call.m_strCallID + ".wav";
        int nStatus = m_media.openMediaStream(&pStream, call.m_strCallID, call.m_ulLegID);
        if (nStatus == MCS_OK)
        {
            m_machines[pStream] = CMachine{call, false};
            nStatus = pStream->recordToFileWithPromptPhrase(m_ulGreeting, 0, WHOLE_FILE, &strFile[0], 0, MAX_MESSAGE_S,
                                                            TIMEOUT_S, 0);
        }
        std::printf("recording %s: %s\n", strFile.c_str(), MCSTATUSToString(nStatus));
        if (nStatus != MCS_OK)
            m_calls.hangUp(call);
    }

    void endMessage(const CZelCallInfo& call)
    {
        for (const auto& item : m_machines)
            if (item.second.m_call.m_strCallID == call.m_strCallID)
                item.first->recordCancel();
    }

    void thank(CZelMediaStream* pStream)
    {
        const auto it = m_machines.find(pStream);
        if (it == m_machines.end())
            return;
        it->second.m_bThanking = true;
        std::string strFile = m_strThanks;
        if (pStream->playAddFile(&strFile[0], 0, TIMEOUT_S, 0, 0, 0) != MCS_OK)
            hangUp(pStream);
    }

    // The end of the thanks, or of a greeting that could not be played.
    void onPlayed(CZelMediaStream* pStream, int nStatus)
    {
        const auto it = m_machines.find(pStream);
        if (it != m_machines.end() && (it->second.m_bThanking || nStatus == MCS_INVALIDHANDLE))
            hangUp(pStream);
    }

    void hangUp(CZelMediaStream* pStream)
    {
        m_calls.hangUp(m_machines[pStream].m_call);
        m_machines.erase(pStream);
        m_media.closeMediaStream(pStream);
    }

    void forget(const CZelCallInfo& call)
    {
        for (auto it = m_machines.begin(); it != m_machines.end(); ++it)
            if (it->second.m_call.m_strCallID == call.m_strCallID)
            {
                m_media.closeMediaStream(it->first);
                m_machines.erase(it);
                return;
            }
    }

    CZelMediaServices& m_media;
    CZelCallServices& m_calls;
    const std::string m_strFolder;
    const std::string m_strThanks;
    unsigned long m_ulGreeting = 0;
    std::map<CZelMediaStream*, CMachine> m_machines;
};
} // namespace

int main(int argc, char** argv)
{
    return runCalls<CAnsweringMachine>(argc, argv, 2, "answering_machine GREETING FOLDER");
}
