// Calls somebody, plays a file, takes one digit and prints it.
//
//   call_out URI FILE [--sip-socket PATH]
//
// The media driver opens FILE: give an absolute path. Ends with 0 when a digit came or at SIGTERM, else with 1.
#include "CallMain.h"

#include <cstdio>
#include <string>
#include <vector>

namespace
{
const unsigned long TIMEOUT_S = 300;
const unsigned long DIGIT_MS = 20000; // from the moment of the answer on

class CCallOut
{
public:
    CCallOut(CCallQueue& queue, CZelMediaServices& media, CZelCallServices& calls, const std::string& strFile)
        : m_queue(queue), m_media(media), m_calls(calls), m_strFile(strFile)
    {
    }
    ~CCallOut()
    {
        if (m_pStream != nullptr)
            m_media.closeMediaStream(m_pStream);
    }

    int run(const std::string& strUri)
    {
        CZelCallInfo call;
        for (;;)
        {
            const CCallEvent event = m_queue.next();
            switch (event.m_eKind)
            {
            case CCallEvent::CONNECTED:
                if (call.m_strCallID.empty() && !dial(strUri, call))
                    return 1;
                break;
            case CCallEvent::ANSWERED: play(event.m_call); break;
            case CCallEvent::DIGITS:
                m_bDigit = !event.m_strText.empty();
                std::printf(m_bDigit ? "the digit is %s\n" : "there was no digit%s\n", event.m_strText.c_str());
                m_calls.hangUp(event.m_call);
                break;
            case CCallEvent::ENDED: return m_bDigit ? 0 : 1;
            case CCallEvent::TERMINATE: m_calls.hangUp(call); return 0;
            default: break;
            }
        }
    }

private:
    bool dial(const std::string& strUri, CZelCallInfo& call)
    {
        const CCSTATUS status = m_calls.dial(strUri, "", &call);
        std::printf("dial %s: %s\n", strUri.c_str(), CCSTATUSToString(status));
        return status == CCS_OK;
    }

    // The driver itself ends the play at the digit, in the same moment.
    void play(const CZelCallInfo& call)
    {
        m_calls.setInterrupts(call, "0123456789*#", false, false);
        m_calls.collectDigits(call, 1, "", DIGIT_MS, 0);
        int nStatus = m_media.openMediaStream(&m_pStream, call.m_strCallID, call.m_ulLegID);
        if (nStatus == MCS_OK)
            nStatus = m_pStream->playAddFile(&m_strFile[0], 0, TIMEOUT_S, 0, 0, 0);
        std::printf("play %s: %s\n", m_strFile.c_str(), MCSTATUSToString(nStatus));
        if (nStatus != MCS_OK)
            m_calls.hangUp(call);
    }

    CCallQueue& m_queue;
    CZelMediaServices& m_media;
    CZelCallServices& m_calls;
    std::string m_strFile;
    CZelMediaStream* m_pStream = nullptr;
    bool m_bDigit = false;
};
} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string strSocket = takeSipSocket(arguments);
    if (arguments.size() != 2)
    {
        std::fprintf(stderr, "usage: call_out URI FILE [--sip-socket PATH]\n");
        return 2;
    }
    CCallQueue queue; // outlives the services
    CZelMediaServices media(&queue);
    awaitDriver(media);
    CZelCallServices calls(&queue, "call_out", strSocket); // a route that no call takes
    return CCallOut(queue, media, calls, arguments[1]).run(arguments[0]);
}
