// Connects callers: asks for an extension, dials it, lets both hear each other, or takes a message.
//
//   receptionist PROMPT DOMAIN FOLDER [--sip-socket PATH]
//
// PROMPT is an audio file that asks for the extension, up to four digits or fewer with a #; who dials 200 is connected
// with sip:200@DOMAIN. Where nobody answers the caller is recorded into FOLDER/CALLID.wav until a # or the end of the
// call. The media driver opens the files: give absolute paths. Ends at SIGTERM.
#include "CallMain.h"

#include <map>

namespace
{
const unsigned long WHOLE_FILE = 0x7FFFFFFF; // samples: what is there
const unsigned long MAX_MESSAGE_S = 60;
const unsigned long TIMEOUT_S = 120;

class CReceptionist
{
public:
    CReceptionist(CZelMediaServices& media, CZelCallServices& calls, const std::vector<std::string>& arguments)
        : m_media(media), m_calls(calls), m_strPrompt(arguments[0]), m_strDomain(arguments[1]),
          m_strFolder(arguments[2])
    {
        m_media.openPhraseFile(&m_strPrompt[0], &m_ulPrompt); // also when the driver is still to come
    }
    ~CReceptionist()
    {
        for (const CZelCallInfo& call : m_calls.calls())
            m_calls.hangUp(call);
        for (const auto& item : m_callers)
            m_media.closeMediaStream(item.second.m_pStream);
        m_media.closePhraseFile(m_ulPrompt);
    }

    void handle(const CCallEvent& event)
    {
        const std::string& strCall = event.m_call.m_strCallID;
        const auto itCaller = m_callers.find(strCall);
        const auto itExtension = m_callerOf.find(strCall);
        if (event.m_eKind == CCallEvent::OFFERED)
            m_calls.answer(event.m_call);
        else if (event.m_eKind == CCallEvent::RECORDED)
            hangUp(event.m_pStream);
        else if (itExtension != m_callerOf.end())
            onExtension(event, m_callers[itExtension->second]);
        else if (event.m_eKind == CCallEvent::ANSWERED)
            ask(event.m_call);
        else if (itCaller != m_callers.end())
            onCaller(event, itCaller->second);
    }

private:
    struct CCaller
    {
        CZelCallInfo m_call;
        CZelMediaStream* m_pStream; // while it hears the prompt, and while it is recorded
        CZelCallInfo m_extension;
        bool m_bConnected;
    };

    // A digit ends the prompt, in the driver and in the same moment.
    void ask(const CZelCallInfo& call)
    {
        CCaller& caller = m_callers[call.m_strCallID] = CCaller{call, nullptr, CZelCallInfo(), false};
        m_calls.setInterrupts(call, "0123456789*#", false, false);
        m_calls.collectDigits(call, 4, "#", 20000, 3000);
        if (m_media.openMediaStream(&caller.m_pStream, call.m_strCallID, call.m_ulLegID) != MCS_OK ||
            caller.m_pStream->playAddPhrase(m_ulPrompt, 0, WHOLE_FILE, TIMEOUT_S, 0, 0) != MCS_OK)
            m_calls.hangUp(call);
    }

    void onCaller(const CCallEvent& event, CCaller& caller)
    {
        if (event.m_eKind == CCallEvent::DIGITS && caller.m_extension.m_strCallID.empty())
            dial(caller, event.m_strText);
        else if (event.m_eKind == CCallEvent::DIGIT && event.m_strText == "#" && caller.m_pStream != nullptr)
            caller.m_pStream->recordCancel();
        else if (event.m_eKind == CCallEvent::ENDED)
        {
            m_calls.hangUp(caller.m_extension);
            m_callerOf.erase(caller.m_extension.m_strCallID);
            m_media.closeMediaStream(caller.m_pStream);
            m_callers.erase(event.m_call.m_strCallID);
        }
    }

    void dial(CCaller& caller, const std::string& strDigits)
    {
        const std::string strUri = "sip:" + strDigits + '@' + m_strDomain;
        m_media.closeMediaStream(caller.m_pStream);
        caller.m_pStream = nullptr;
        const CCSTATUS status = m_calls.dial(strUri, caller.m_call.m_strFrom, &caller.m_extension);
        std::printf("dial %s: %s\n", strUri.c_str(), CCSTATUSToString(status));
        if (status == CCS_OK)
            m_callerOf[caller.m_extension.m_strCallID] = caller.m_call.m_strCallID;
        else
            takeMessage(caller);
    }

    // Where the extension does not answer there is a message; after a conversation there is none.
    void onExtension(const CCallEvent& event, CCaller& caller)
    {
        if (event.m_eKind == CCallEvent::ANSWERED)
            caller.m_bConnected = m_calls.bridge(caller.m_call, event.m_call) == CCS_OK;
        if (event.m_eKind != CCallEvent::ENDED)
            return;
        m_callerOf.erase(event.m_call.m_strCallID);
        if (caller.m_bConnected)
            m_calls.hangUp(caller.m_call);
        else
            takeMessage(caller);
    }

    void takeMessage(CCaller& caller)
    {
        const CZelCallInfo& call = caller.m_call;
        std::string strFile = m_strFolder + '/' + call.m_strCallID + ".wav";
        int nStatus = m_media.openMediaStream(&caller.m_pStream, call.m_strCallID, call.m_ulLegID);
        if (nStatus == MCS_OK) // the end is told only with a prompt: here a sample of it
            nStatus = caller.m_pStream->recordToFileWithPromptPhrase(m_ulPrompt, 0, 1, &strFile[0], 0, MAX_MESSAGE_S,
                                                                     TIMEOUT_S, 0);
        std::printf("recording %s: %s\n", strFile.c_str(), MCSTATUSToString(nStatus));
        if (nStatus != MCS_OK)
            m_calls.hangUp(call);
    }

    void hangUp(CZelMediaStream* pStream)
    {
        for (const auto& item : m_callers)
            if (item.second.m_pStream == pStream)
                m_calls.hangUp(item.second.m_call);
    }

    CZelMediaServices& m_media;
    CZelCallServices& m_calls;
    std::string m_strPrompt;
    const std::string m_strDomain;
    const std::string m_strFolder;
    unsigned long m_ulPrompt = 0;
    std::map<std::string, CCaller> m_callers;      // by their call ids
    std::map<std::string, std::string> m_callerOf; // the caller's call id by that of the extension
};
} // namespace

int main(int argc, char** argv)
{
    return runCalls<CReceptionist>(argc, argv, 3, "receptionist PROMPT DOMAIN FOLDER");
}
