// CCallQueue: what happens on calls and to their audio, one after the other, for the thread of the application.
#ifndef CALL_QUEUE_H
#define CALL_QUEUE_H

#include "ZelCallServices.h"
#include "ZelMediaServices.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>

struct CCallEvent
{
    enum EKind
    {
        OFFERED,
        PROGRESS,
        ANSWERED,
        DIGIT,  // m_strText
        DIGITS, // m_strText
        ENDED,
        PLAYED,   // m_pStream, m_nStatus
        RECORDED, // m_pStream, m_nStatus
        FAILED,   // a request: m_strText
        CONNECTED,
        LOST,
        TERMINATE // somebody wants the program to end
    };
    EKind m_eKind;
    CZelCallInfo m_call;
    CZelMediaStream* m_pStream;
    int m_nStatus;
    std::string m_strText;
};

// The handlers of both libraries, whose threads must not be kept waiting: they only put events into the queue.
class CCallQueue : public CZelCallHandler, public CZelMediaStreamCompletionHandler
{
public:
    CCallQueue()
    {
        std::setvbuf(stdout, nullptr, _IOLBF, 0); // each line at once, also into a file
        std::signal(SIGTERM, onSignal);
        std::signal(SIGINT, onSignal);
    }

    // Waits for the next event and prints it.
    CCallEvent next()
    {
        std::unique_lock<std::mutex> hold(m_mutex);
        while (m_events.empty() && !s_bTerminate)
            m_arrived.wait_for(hold, std::chrono::milliseconds(100)); // a signal handler cannot wake it
        if (s_bTerminate)
            return CCallEvent{CCallEvent::TERMINATE, CZelCallInfo(), nullptr, 0, ""};
        const CCallEvent event = m_events.front();
        m_events.pop_front();
        print(event);
        return event;
    }

private:
    static void onSignal(int) { s_bTerminate = 1; }

    void add(CCallEvent::EKind eKind, const CZelCallInfo& call, const std::string& strText = "", int nStatus = 0,
             CZelMediaStream* pStream = nullptr)
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_events.push_back(CCallEvent{eKind, call, pStream, nStatus, strText});
        m_arrived.notify_all();
    }

    void OnCallOffered(const CZelCallInfo& call) override { add(CCallEvent::OFFERED, call, "from " + call.m_strFrom); }
    void OnCallProgress(const CZelCallInfo& call, int nStatus) override
    {
        add(CCallEvent::PROGRESS, call, std::to_string(nStatus), nStatus);
    }
    void OnCallAnswered(const CZelCallInfo& call) override { add(CCallEvent::ANSWERED, call); }
    void OnCallDigit(const CZelCallInfo& call, char cDigit, unsigned long) override
    {
        add(CCallEvent::DIGIT, call, std::string(1, cDigit));
    }
    void OnCallDigits(const CZelCallInfo& call, const std::string& strDigits, CC_DIGITS_END) override
    {
        add(CCallEvent::DIGITS, call, strDigits);
    }
    void OnCallEnded(const CZelCallInfo& call, CC_END_REASON eReason, int nStatus) override
    {
        add(CCallEvent::ENDED, call, CCENDREASONToString(eReason), nStatus);
    }
    void OnRequestFailed(unsigned long, CCSTATUS status, const std::string& strWhy) override
    {
        add(CCallEvent::FAILED, CZelCallInfo(), CCSTATUSToString(status) + (": " + strWhy), status);
    }
    void OnControlRestored() override { add(CCallEvent::CONNECTED, CZelCallInfo()); }
    void OnControlLost() override { add(CCallEvent::LOST, CZelCallInfo()); }
    void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) override
    {
        add(reason == MCCR_RECORD ? CCallEvent::RECORDED : CCallEvent::PLAYED, CZelCallInfo(),
            MCSTATUSToString(mcstatus), mcstatus, pStream);
    }

    static void print(const CCallEvent& event)
    {
        static const char* const s_apszKinds[] = {"offered", "progress", "answered", "digit",     "digits", "ended",
                                                  "played",  "recorded", "failed",   "connected", "lost",   ""};
        std::string strLine = s_apszKinds[event.m_eKind];
        if (!event.m_call.m_strCallID.empty())
            strLine += ' ' + event.m_call.m_strCallID + '/' + std::to_string(event.m_call.m_ulLegID);
        if (!event.m_strText.empty())
            strLine += ' ' + event.m_strText;
        std::printf("%s\n", strLine.c_str());
    }

    static volatile std::sig_atomic_t s_bTerminate;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::deque<CCallEvent> m_events;
};

volatile std::sig_atomic_t CCallQueue::s_bTerminate = 0;

#endif
