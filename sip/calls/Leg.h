// A leg of a call: one dialog, one media session, one state machine.
#ifndef SIP_LEG_H
#define SIP_LEG_H

#include "DigitCollector.h"
#include "Loop.h"
#include "MediaDriver.h"
#include "Negotiation.h"
#include "Policy.h"
#include "SessionTimer.h"
#include "SipDialog.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class CLeg;

// What legs need of the daemon.
class CLegServices
{
public:
    virtual ~CLegServices() = default;

    virtual CLoop& loop() = 0;
    virtual CMediaDriver& driver() = 0;
    virtual const CPolicy& policy() const = 0;
    virtual std::string mediaAddress() const = 0; // empty: the driver's own
    // The leg waits for an application; false when there is none.
    virtual bool offer(CLeg& leg) = 0;
    // The last request of a dialog is out; it is kept for as long as that may take.
    virtual void part(std::unique_ptr<CSipDialog> pDialog) = 0;
    virtual void emit(CLeg& leg, nlohmann::ordered_json event) = 0;
    virtual void ended(CLeg& leg) = 0; // its application was told
    virtual void changed(CLeg& leg) = 0;
    virtual void finished(CLeg& leg) = 0; // nothing of it is left in the network
};

enum class ELegState
{
    Preparing,  // the driver makes the media session
    Offered,    // to an application
    Ringing,    // and the caller knows
    Answering,  // the 2xx waits for its ACK
    Dialing,    // the INVITE is out
    Answered,   // stable
    Reoffering, // an offer of ours is out
    Reoffered,  // the answer to an offer of the peer's waits for its ACK
    Hanging,    // to be ended as soon as the ACK is there
    Cancelling, // the INVITE is taken back
    Ending,     // the BYE is out
    Ended
};

enum class ELegEvent
{
    MediaReady,
    MediaFailed,
    Ring,
    Answer,
    Reject,
    Redirect,
    HangUp,
    Hold,
    Resume,
    Cancelled,
    Bye,
    Ack,
    AckMissing,
    Progress,
    Success,
    Failure,
    Offer,   // a re-INVITE or UPDATE
    TimeOut, // of ringing, dialing, ending
    Retry    // of an offer that met another one
};

struct CLegEvent
{
    ELegEvent m_eEvent;
    const CSipMessage* m_pMessage = nullptr;
    uint64_t m_ullRequest = 0;
    int m_nStatus = 0;
    std::string m_strText = {}; // reason of an end, target
    bool m_bMedia = false;      // ring with early media
    SipHeaders m_vHeaders = {};
};

class CLeg : public CSipDialogHandler, public std::enable_shared_from_this<CLeg>
{
public:
    CLeg(CLegServices& services, CLegName name, CNegotiationSettings negotiation);
    ~CLeg() override;
    CLeg(const CLeg&) = delete;
    CLeg& operator=(const CLeg&) = delete;

    // How a leg begins: with a call from outside, with one to outside, with what was left of a former process.
    void begin(std::unique_ptr<CSipDialog> pDialog, uint64_t ullInvite, const CSipMessage& message);
    void dial(std::unique_ptr<CSipDialog> pDialog, const std::string& strUri, const std::string& strFrom,
              const SipHeaders& vHeaders);

    // False when the leg is in no state for it.
    bool take(const CLegEvent& event);
    bool hangUp(const std::string& strReason, int nStatus = 0);
    void onDriverEvent(const nlohmann::json& event);
    void onDriverLost();

    bool transfer(const std::string& strUri, const std::string& strReplaces);
    std::string replaces() const { return m_pDialog ? m_pDialog->replaces() : ""; }
    std::string remoteUri() const { return m_bCaller ? m_strTo : m_strFrom; }
    bool collect(const CDigitCollection& collection);
    // The peer's new dialog takes the place of the old one.
    bool replaceDialog(std::unique_ptr<CSipDialog> pDialog, uint64_t ullInvite, const CSipMessage& message);
    bool isDialog(const CSipReplaces& replaces) const;

    const CLegName& name() const { return m_name; }
    ELegState state() const { return m_eState; }
    bool isAnswered() const;
    bool isWaiting() const { return m_eState == ELegState::Offered || m_eState == ELegState::Ringing; }
    bool isCaller() const { return m_bCaller; }
    bool isOver() const { return m_bEndTold; }
    const std::string& calledNumber() const { return m_strNumber; }
    const std::string& source() const { return m_strSource; }
    nlohmann::ordered_json describe() const;
    CSipDialog* dialog() const { return m_pDialog.get(); }

    void onRequest(uint64_t ullRequest, const CSipMessage& message) override;
    void onAck(uint64_t ullRequest, const CSipMessage& message) override;
    void onAckMissing(uint64_t ullRequest) override;
    void onCancel(uint64_t ullRequest) override;
    void onPrack(uint64_t ullRequest, const CSipMessage& message) override;
    void onPrackMissing(uint64_t ullRequest) override;
    void onResponse(uint64_t ullRequest, const CSipMessage& message) override;

private:
    using Handler = bool (CLeg::*)(const CLegEvent& event);

    // One for each state: what it does with an event; false where the event makes no sense.
    bool inPreparing(const CLegEvent& event);
    bool inOffered(const CLegEvent& event);
    bool inRinging(const CLegEvent& event);
    bool inAnswering(const CLegEvent& event);
    bool inDialing(const CLegEvent& event);
    bool inAnswered(const CLegEvent& event);
    bool inReoffering(const CLegEvent& event);
    bool inReoffered(const CLegEvent& event);
    bool inHanging(const CLegEvent& event);
    bool inCancelling(const CLegEvent& event);
    bool inEnding(const CLegEvent& event);
    bool inEnded(const CLegEvent& event);

    void enter(ELegState eState);
    void prepareMedia();
    void updateMedia();
    void endMedia(const std::string& strReason);
    void tellEnd(const std::string& strReason, int nStatus);
    void finish(const std::string& strReason, int nStatus); // told, and nothing to wait for
    void refuse(int nStatus, const std::string& strReason, const SipHeaders& vHeaders = {});
    void sendBye(const std::string& strReason, int nStatus = 0);
    bool ring(bool bMedia);
    bool answer();
    void established(const CLegEvent& event);
    void progress(const CSipMessage& message);
    void failed(const CSipMessage& message);
    bool retryInvite(const CSipMessage& message);
    bool followRedirect(const CSipMessage& message);
    bool hold(bool bHold);
    bool sendOffer();
    void answerOffer(const CLegEvent& event);
    bool offerAnswered(const CLegEvent& event);
    void offerFailed(const CLegEvent& event);
    void tellHeld(bool bHeld, bool bOurs);
    void acknowledged(const CLegEvent& event);
    void takeInfo(uint64_t ullRequest, const CSipMessage& message);
    void takeNotify(uint64_t ullRequest, const CSipMessage& message);
    void takeUpdate(uint64_t ullRequest, const CSipMessage& message);
    void digit(const std::string& strDigit, unsigned uMs);
    void transferred(int nStatus);
    void startSessionTimer(const std::optional<CSipSessionExpires>& expires, bool bWeAsked);
    void refreshSession();
    CSipContent withSdp(const std::string& strSdp) const;
    CSipContent sessionContent() const;
    SipHeaders sessionAnswer(const CSipMessage& message);
    bool isOurRequest(uint64_t ullRequest) const { return ullRequest != 0 && ullRequest == m_ullInvite; }

    CLegServices& m_services;
    const CLegName m_name;
    ELegState m_eState = ELegState::Preparing;
    std::unique_ptr<CSipDialog> m_pDialog;
    CNegotiation m_negotiation;
    bool m_bCaller = false;
    uint64_t m_ullInvite = 0; // the INVITE, of whichever side, that is not done with
    uint64_t m_ullRefresh = 0;
    uint64_t m_ullRefer = 0;

    std::string m_strFrom;
    std::string m_strTo;
    std::string m_strNumber;
    std::string m_strSource;
    std::string m_strSipCallID;
    std::string m_strRemoteTag;
    std::string m_strTarget; // that is dialed
    std::map<std::string, std::string> m_mapHeaders;
    SipHeaders m_vOurHeaders;              // of the INVITE or of its 2xx
    std::optional<std::string> m_strOffer; // of the INVITE that waits
    bool m_bReliable = false;              // the caller takes reliable provisional answers
    std::string m_strAnswer;               // to the caller's offer
    bool m_bAnswerSent = false;            // reliably
    bool m_bEarlyAnswer = false;           // a provisional one had what we need
    unsigned m_uMinimumExpires = 0;        // what the peer insists on
    unsigned m_uRedirects = 0;

    bool m_bMedia = false; // the driver has a session
    bool m_bKeys = false;  // which it was told keys for
    bool m_bEndTold = false;
    bool m_bHeld = false;        // as the application knows it
    bool m_bOfferWanted = false; // as soon as the leg is stable
    bool m_bLateOffer = false;   // the answer to ours comes in the ACK

    bool m_bPeerUpdates = false;
    CTimer m_timer;      // of the state
    CTimer m_retryTimer; // of offers
    CSessionTimer m_sessionTimer;
    CDigitCollector m_collector;
};

const char* stateName(ELegState eState);

#endif
