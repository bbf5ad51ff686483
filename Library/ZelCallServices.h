// Calls: who rings, what was dialled, which keys are pressed, who hung up; and answering, dialling, transferring.
//
// libZelCallLib talks to zelmedia-sip, which makes the calls. What is played and recorded on them goes through
// libZelMediaLib: the call id and leg of a call are what CZelMediaServices::openMediaStream takes, once the call is
// answered.
//
//   class CMine : public CZelCallHandler
//   {
//       void OnCallOffered(const CZelCallInfo& call) override { m_pServices->answer(call); }
//       void OnCallAnswered(const CZelCallInfo& call) override { ... open the stream and play ... }
//       void OnCallDigit(const CZelCallInfo& call, char, unsigned long) override { m_pServices->hangUp(call); }
//       void OnCallEnded(const CZelCallInfo& call, CC_END_REASON, int) override { ... close the stream ... }
//   };
//
//   CMine mine;
//   CZelCallServices services(&mine); // connects by itself, now and whenever the connection is lost
//   mine.m_pServices = &services;
//
// Every operation returns a status, 0 (CCS_OK) for success. Only the constructor throws. A process may use the
// interface after fork() only in the parent.
#ifndef ZEL_CALL_SERVICES_H
#define ZEL_CALL_SERVICES_H

#include <map>
#include <memory>
#include <string>
#include <vector>

// Marks what libZelCallLib exports.
#define ZELCALL_API __attribute__((visibility("default")))

class CZelCallServicesImpl;

// The status of an operation.
typedef int CCSTATUS;

enum : CCSTATUS
{
    CCS_OK = 0,
    CCS_NOTCONNECTED = 1, // zelmedia-sip is not there, or went before it answered: then nobody knows what it did
    CCS_NOSUCHCALL = 2,   // the leg has ended, or never was
    CCS_WRONGSTATE = 3,   // not in this state of the call
    CCS_BADARGUMENT = 4,  // an argument has no meaning here
    CCS_REFUSED = 5,      // not allowed, no room, or the leg is another application's
    CCS_OUTOFMEMORY = 6,  // nothing was done
    CCS_FAILED = 7        // it was tried, and failed
};

// The name of a status, for messages: "CCS_REFUSED"; "CCSTATUS unknown" for others.
inline const char* CCSTATUSToString(CCSTATUS ccstatus)
{
    switch (ccstatus)
    {
    case CCS_OK: return "CCS_OK";
    case CCS_NOTCONNECTED: return "CCS_NOTCONNECTED";
    case CCS_NOSUCHCALL: return "CCS_NOSUCHCALL";
    case CCS_WRONGSTATE: return "CCS_WRONGSTATE";
    case CCS_BADARGUMENT: return "CCS_BADARGUMENT";
    case CCS_REFUSED: return "CCS_REFUSED";
    case CCS_OUTOFMEMORY: return "CCS_OUTOFMEMORY";
    case CCS_FAILED: return "CCS_FAILED";
    default: return "CCSTATUS unknown";
    }
}

// How far a leg is.
enum CC_CALL_STATE
{
    CCCS_OFFERED = 0,  // inbound, the caller hears nothing yet
    CCCS_RINGING = 1,  // inbound, the caller hears it ring, or early media
    CCCS_DIALING = 2,  // outbound, not answered
    CCCS_ANSWERED = 3, // both sides hear each other
    CCCS_HELD = 4,     // answered, and held by one of the sides
    CCCS_ENDED = 5     // over; the leg is not known any more
};

// What ended the collecting of digits.
enum CC_DIGITS_END
{
    CCDE_MAX = 0,        // as many as were asked for
    CCDE_TERMINATOR = 1, // one of the terminators, which is not among the digits
    CCDE_TIMEOUT = 2,    // no first or no next one in time
    CCDE_ENDED = 3       // the call ended
};

// Why a leg ended.
enum CC_END_REASON
{
    CCER_FAILED = 0,           // anything that is not below
    CCER_HANGUP = 1,           // the party hung up
    CCER_LOCAL = 2,            // the application asked for it
    CCER_BUSY = 3,             // the dialled party is busy
    CCER_REJECTED = 4,         // the dialled party does not want the call
    CCER_NOANSWER = 5,         // the dialled party did not answer in time
    CCER_CANCELLED = 6,        // the caller gave up before the answer
    CCER_TRANSFERRED = 7,      // it goes on elsewhere
    CCER_TIMER = 8,            // the party is not there any more
    CCER_NOMEDIA = 9,          // nothing was heard of the party for too long
    CCER_APPLICATIONLOST = 10, // the application was away for too long
    CCER_DRIVERLOST = 11,      // the media driver is gone
    CCER_SHUTDOWN = 12,        // zelmedia-sip ended
    CCER_CONTROLLOST = 13      // zelmedia-sip, back after it was lost, does not know the leg any more or gave it to
                               // another application
};

// The name of a reason, as docs/calls-protocol.md has it: "no-answer"; "control-lost" for CCER_CONTROLLOST.
inline const char* CCENDREASONToString(CC_END_REASON reason)
{
    switch (reason)
    {
    case CCER_FAILED: return "failed";
    case CCER_HANGUP: return "hangup";
    case CCER_LOCAL: return "local";
    case CCER_BUSY: return "busy";
    case CCER_REJECTED: return "rejected";
    case CCER_NOANSWER: return "no-answer";
    case CCER_CANCELLED: return "cancelled";
    case CCER_TRANSFERRED: return "transferred";
    case CCER_TIMER: return "timer";
    case CCER_NOMEDIA: return "no-media";
    case CCER_APPLICATIONLOST: return "application-lost";
    case CCER_DRIVERLOST: return "driver-lost";
    case CCER_SHUTDOWN: return "shutdown";
    case CCER_CONTROLLOST: return "control-lost";
    default: return "unknown";
    }
}

// One leg of a call, as it was when this was made. A value: copying it and destroying it do nothing to the call.
// Operations look at call id and leg only, so an old copy is as good as a new one.
struct CZelCallInfo
{
    std::string m_strCallID;                         // at most 31 bytes; unique, also over restarts
    unsigned long m_ulLegID = 0;                     // from 1 on
    std::string m_strFrom;                           // URI of the caller
    std::string m_strTo;                             // URI that was called
    std::string m_strSipCallID;                      // the Call-ID of SIP, to find the call in a trace
    std::map<std::string, std::string> m_mapHeaders; // some headers of the INVITE, X- ones among them
    CC_CALL_STATE m_eState = CCCS_ENDED;
};

// Implemented by the application, which overrides what it wants to hear of; all of them are empty.
//
// All are called on the one event thread of a CZelCallServices, one after the other, with no lock of the library held:
// they may call any operation, also of other objects, and destroy what they like, but for the handler itself.
// While one runs no other is called, so it should return promptly. None may throw: that ends the process.
//
// For each leg: OnCallOffered (inbound; dial outbound, OnCallClaimed for one that was claimed) comes first, OnCallEnded
// last and exactly once, unless the services object is destroyed before. Nothing is lost or told twice while the
// connection to zelmedia-sip comes and goes.
class ZELCALL_API CZelCallHandler
{
public:
    CZelCallHandler();
    virtual ~CZelCallHandler();

    // A call for the route of the services: ring, answer, reject or redirect it.
    virtual void OnCallOffered(const CZelCallInfo& call);

    // A dialled leg: 180 it rings, 183 there is early media to hear, others up to 199 as SIP has them.
    virtual void OnCallProgress(const CZelCallInfo& call, int nSipStatus);

    // The leg is answered, by us or by the dialled party: its media stream may be opened.
    virtual void OnCallAnswered(const CZelCallInfo& call);

    // The party pressed a key: 0 to 9, *, #, A to D. Also while digits are collected.
    virtual void OnCallDigit(const CZelCallInfo& call, char cDigit, unsigned long ulMilliseconds);

    // What collectDigits has collected, without the terminator; once for each collectDigits that zelmedia-sip took on,
    // but not for one that another one took the place of.
    virtual void OnCallDigits(const CZelCallInfo& call, const std::string& strDigits, CC_DIGITS_END eWhy);

    // The party begins or ends to speak. Only where setInterrupts asked for it.
    virtual void OnCallSpeech(const CZelCallInfo& call, bool bBegins);

    // The leg is held, or goes on: by the party, or as hold and resume asked.
    virtual void OnCallHeld(const CZelCallInfo& call, bool bHeld);

    // The end of a transfer: below 300 it worked, and OnCallEnded will come. Otherwise the call goes on.
    virtual void OnCallTransferred(const CZelCallInfo& call, int nSipStatus);

    // The leg is over. nSipStatus is that of SIP, 0 where there is none.
    virtual void OnCallEnded(const CZelCallInfo& call, CC_END_REASON eReason, int nSipStatus);

    // A request that was on its way was not done. ulRequest is what the operation gave, strWhy is for people.
    virtual void OnRequestFailed(unsigned long ulRequest, CCSTATUS status, const std::string& strWhy);

    // The connection to zelmedia-sip is lost. Calls go on meanwhile; operations return CCS_NOTCONNECTED.
    virtual void OnControlLost();

    // The connection is there, for the first time or again; the calls are known again.
    virtual void OnControlRestored();

    // A leg that claim asked for is this application's from now on.
    virtual void OnCallClaimed(const CZelCallInfo& call);

    // A recording of recordCall is complete; bOK says whether all of it is in the file.
    virtual void OnCallRecorded(const CZelCallInfo& call, const std::string& strFile, bool bOK);
};

// The entry into the library. Any thread may call any operation at any time.
//
// Operations do not wait, but for dial: CCS_OK says that the request is on its way. What comes of it is told by the
// handler: by the events of the call, or by OnRequestFailed with the number that *pulRequest got, unless pulRequest is
// null. Numbers are never 0 and never used twice. Besides what is said below, every operation on a call returns
//   CCS_NOTCONNECTED, CCS_NOSUCHCALL (it has ended), CCS_WRONGSTATE, CCS_OUTOFMEMORY, CCS_BADARGUMENT (a text is far
//   too long)
// and then nothing has happened. In which states an operation is possible stands with it; hangUp ends them all:
// after it only events come.
class ZELCALL_API CZelCallServices
{
public:
    // pHandler   is not owned, must outlive this object, and may be null: then nothing is reported.
    // strRoute   the calls of which route are offered to this object; "*" those that no other route has. A program that
    //            only dials takes a route that no call has.
    // strSocket  the path of zelmedia-sip's socket; "" stands for /run/zelmedia/sip.sock where that exists, else
    //            /tmp/zelmedia-sip.sock
    //
    // Begins to connect; OnControlRestored tells when it has succeeded. Throws std::bad_alloc or std::system_error when
    // the system has no memory, thread or descriptor to give.
    explicit CZelCallServices(CZelCallHandler* pHandler, std::string strRoute = "*", std::string strSocket = "");

    // No callback comes after it; one that runs is waited for, unless it is this callback that destroys the object.
    // Does not hang up: calls that were offered go to another application, answered ones can be claimed by another one
    // for 10 s, then they end.
    ~CZelCallServices();
    CZelCallServices(const CZelCallServices&) = delete;
    CZelCallServices& operator=(const CZelCallServices&) = delete;

    // Has the caller hear that it rings, or, with bEarlyMedia, what is played before the answer. Offered or ringing.
    CCSTATUS ring(const CZelCallInfo& call, bool bEarlyMedia = false, unsigned long* pulRequest = nullptr);

    // Answers; OnCallAnswered follows. Offered or ringing.
    CCSTATUS answer(const CZelCallInfo& call, unsigned long* pulRequest = nullptr);

    // Turns the call away with a status of SIP from 400 to 699: 486 busy, 603 not wanted. OnCallEnded follows.
    // Offered or ringing. CCS_BADARGUMENT: another status.
    CCSTATUS reject(const CZelCallInfo& call, int nSipStatus, unsigned long* pulRequest = nullptr);

    // Sends the caller to another address. OnCallEnded follows. Offered or ringing.
    CCSTATUS redirect(const CZelCallInfo& call, const std::string& strUri, unsigned long* pulRequest = nullptr);

    // Ends the leg, in every state: rejects it, gives up dialling, hangs up. OnCallEnded follows. While the connection
    // is lost it is remembered, which is CCS_OK, too.
    CCSTATUS hangUp(const CZelCallInfo& call, unsigned long* pulRequest = nullptr);

    // Holds the party, takes it back; OnCallHeld follows. Answered or held.
    CCSTATUS hold(const CZelCallInfo& call, unsigned long* pulRequest = nullptr);
    CCSTATUS resume(const CZelCallInfo& call, unsigned long* pulRequest = nullptr);

    // Asks the party to call that address instead; OnCallTransferred follows. Answered or held.
    CCSTATUS transfer(const CZelCallInfo& call, const std::string& strUri, unsigned long* pulRequest = nullptr);

    // Connects the parties of two legs with each other, without us; OnCallTransferred follows, for call. Both answered
    // or held.
    CCSTATUS transferTo(const CZelCallInfo& call, const CZelCallInfo& other, unsigned long* pulRequest = nullptr);

    // Dials an address; strFrom is what the party sees of the caller, "" for the default. Waits for zelmedia-sip to
    // accept it, 10 s at most. CCS_OK: *pCall is the leg, of which OnCallProgress, OnCallAnswered and OnCallEnded tell;
    // pCall may be null. CCS_REFUSED: the dial-out rules do not allow it, or there is no room. OnRequestFailed does
    // not come. *pCall is untouched after a failure.
    CCSTATUS dial(const std::string& strUri, const std::string& strFrom, CZelCallInfo* pCall);

    // The parties of two legs hear each other; plays go on being heard by one alone. Not bridged any more. Answered
    // or held.
    CCSTATUS bridge(const CZelCallInfo& call, const CZelCallInfo& other, unsigned long* pulRequest = nullptr);
    CCSTATUS unbridge(const CZelCallInfo& call, unsigned long* pulRequest = nullptr);

    // Sends digits: 0 to 9, *, #, A to D, each of that many milliseconds. Not before there is media: ringing, dialling,
    // answered or held. CCS_BADARGUMENT: none, or others.
    CCSTATUS sendDigits(const CZelCallInfo& call, const std::string& strDigits, unsigned long ulMilliseconds = 100,
                        unsigned long* pulRequest = nullptr);

    // Collects up to nMax (1 to 64) digits, until one of strTerminators or until none comes for ulFirstMs in the
    // beginning or ulNextMs afterwards; 0 for no limit. OnCallDigits follows. Ends what an earlier one collects. The
    // first digit ends what plays on the leg if setInterrupts said so. States as above.
    CCSTATUS collectDigits(const CZelCallInfo& call, int nMax, const std::string& strTerminators,
                           unsigned long ulFirstMs, unsigned long ulNextMs, unsigned long* pulRequest = nullptr);

    // Records the whole call into a stereo WAV, whose path is as the media driver sees it: left the party, right what
    // it hears. "" ends it; OnCallRecorded follows then, or at the end of the call. Answered or held.
    CCSTATUS recordCall(const CZelCallInfo& call, const std::string& strFile, unsigned long* pulRequest = nullptr);

    // The legs of this object that have not ended; none when out of memory.
    std::vector<CZelCallInfo> calls() const;

    // Which digits end what plays on the leg in the same moment, whether speech does, and whether OnCallSpeech is
    // called. In all states.
    CCSTATUS setInterrupts(const CZelCallInfo& call, const std::string& strDigits, bool bSpeech, bool bReportSpeech,
                           unsigned long* pulRequest = nullptr);

    // Takes over the legs of a call whose application was lost, for example in an earlier life of this program:
    // OnCallClaimed for each, or OnRequestFailed.
    CCSTATUS claim(const std::string& strCallID, unsigned long* pulRequest = nullptr);

private:
    std::shared_ptr<CZelCallServicesImpl> m_pImpl;
};

#endif
