// One leg: its state, which commands it takes, and its events in the order of their numbers.
#ifndef CALL_LEG_H
#define CALL_LEG_H

#include "CallWire.h"

#include <functional>
#include <map>
#include <vector>

enum class ECallCommand
{
    Ring,
    Answer,
    Reject,
    Redirect,
    HangUp,
    Hold,
    Resume,
    Transfer,
    TransferTo,
    Bridge,
    Unbridge,
    SendDigits,
    CollectDigits,
    RecordCall,
    Set
};

// What a command is called on the wire.
const char* requestNameOf(ECallCommand command);

// To be called with no lock held.
using CallbackFunction = std::function<void(CZelCallHandler&)>;

// The state of a leg moves by its events, and by the commands that are on their way: an answer or an end that was asked
// for excludes what cannot follow it. Not thread-safe.
class CCallLeg
{
public:
    // An inbound one as it is offered, an outbound one as it is dialled, any as it is claimed; ullLast is the number
    // of the newest event that is known.
    CCallLeg(CZelCallInfo info, uint64_t ullLast);

    const CZelCallInfo& info() const { return m_info; }
    uint64_t last() const { return m_ullLast; }
    bool isEnding() const { return m_eState == EState::Ending; }
    unsigned long endRequest() const { return m_ulEndRequest; } // the one that asked for the end
    bool hasEnded() const { return m_eState == EState::Ended; }

    bool allows(ECallCommand command) const;
    // A command was sent; zelmedia-sip has accepted or refused it.
    void asked(ECallCommand command, unsigned long ulRequest);
    void accepted(ECallCommand command);
    void refused(ECallCommand command);

    // Takes an event that was pushed, and appends what has to be called. False when events before it are missing:
    // then it waits for replayed, and they have to be asked for, after last().
    bool take(const nlohmann::json& event, std::vector<CallbackFunction>& vCallbacks);

    // Until replayed, what is pushed waits.
    void awaitReplay() { m_bAwaitsReplay = true; }
    bool awaitsReplay() const { return m_bAwaitsReplay; }
    // The events that were asked for, an array or whatever came instead of it. What is still missing then is lost.
    void replayed(const nlohmann::json& events, std::vector<CallbackFunction>& vCallbacks);

    // Ends it without an event.
    void end(CC_END_REASON eReason, std::vector<CallbackFunction>& vCallbacks);

private:
    enum class EState
    {
        Offered,
        Ringing,
        Dialing,
        Answering, // asked to answer
        Answered,
        Held,
        Ending, // asked to end: only events come
        Ended
    };

    static EState stateOf(CC_CALL_STATE eState);
    void moveTo(EState eState);
    void apply(const nlohmann::json& event, std::vector<CallbackFunction>& vCallbacks);
    void applyEnd(const nlohmann::json& event, std::vector<CallbackFunction>& vCallbacks);
    void applyMedia(const std::string& strEvent, const nlohmann::json& event,
                    std::vector<CallbackFunction>& vCallbacks) const;
    void deliver(const nlohmann::json& event, std::vector<CallbackFunction>& vCallbacks);

    CZelCallInfo m_info;
    EState m_eState;
    uint64_t m_ullLast;
    unsigned long m_ulEndRequest = 0;
    bool m_bAwaitsReplay = false;
    std::map<uint64_t, nlohmann::json> m_mapWaiting; // by number, while some before them are missing
};

#endif
