// The media of one leg of a call: what comes from the far end and what goes there, tick by tick.
#ifndef DRIVER_RTP_SESSION_H
#define DRIVER_RTP_SESSION_H

#include "InBandKeys.h"
#include "Poller.h"
#include "RtcpSide.h"
#include "RtpIntake.h"
#include "RtpPort.h"
#include "RtpSender.h"
#include "SourceLock.h"
#include "SpeechDetector.h"
#include "Srtp.h"
#include "TelephoneEvents.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

// As the driver sees it: SendOnly does not listen.
enum class EDirection
{
    SendReceive,
    SendOnly,
    ReceiveOnly,
    Inactive
};

struct CMediaSettings
{
    CNetAddress m_remote;     // where to send first; unknown: where packets come from
    CNetAddress m_rtcpRemote; // unknown: beside the remote address
    std::vector<CRtpIntake::CFormat> m_vReceive;
    std::vector<uint8_t> m_vKeyPayloads; // of those, the telephone events
    const CCodec* m_pSendCodec = &CODEC_PCMU;
    uint8_t m_nSendPayload = 0;
    unsigned m_nPtimeMs = 20;
    std::optional<uint8_t> m_sendKeys; // payload type of telephone events
    EDirection m_eDirection = EDirection::SendReceive;
    bool m_bRtcpMux = false;
    std::string m_strInterruptKeys;  // that end a play
    bool m_bInterruptSpeech = false; // speech does, too
    bool m_bSpeech = false;          // is told
    std::optional<CSrtpKeys> m_srtp;
    std::optional<uint8_t> m_comfortNoise; // payload type that may come, and is heard as silence
    unsigned m_nNoMediaS = 30;             // 0: never
    unsigned m_nJitterMs = 60;
};

struct CSessionEvent
{
    enum class EKind
    {
        Digit,
        DigitsSent,
        SpeechBegins,
        SpeechEnds,
        Source,
        NoMedia,
        Media
    };
    EKind m_eKind = EKind::Digit;
    char m_cDigit = 0;
    unsigned m_nNumber = 0; // milliseconds of a digit, seconds without media
    CNetAddress m_address;  // of a new source
};

// Used on the loop's thread. The ports outlive it.
class CRtpSession : private CRtpReceiver, private CKeyListener, private CRtpSender::COutput
{
public:
    // Gets the events after the tick in which they came up. May end the session.
    class CListener
    {
    public:
        virtual ~CListener() = default;
        virtual void onSessionEvent(const CSessionEvent& event) = 0;
    };

    // Hears both sides of each tick, in the tick: neither blocks, locks nor allocates, but in service.
    class CTap
    {
    public:
        virtual ~CTap() = default;
        virtual void onMedia(std::span<const uint8_t> said, std::span<const uint8_t> heard) = 0;
        virtual void onJump(uint64_t ullTicks) = 0;
        virtual bool wantsService() const = 0;
        virtual void service() = 0;
    };
    static constexpr size_t TICK = CRtpSender::TICK;

    // How a leg uses its port.
    enum class EKind
    {
        Table, // to and from one address; sends while something plays, and nothing else; no reports
        Call   // learns its far end, sends always, and reports
    };

    // Null, with the reason in strError, when the port is taken. A call has a second socket for its reports,
    // watched by the poller where there is one.
    static std::shared_ptr<CRtpSession> create(EKind eKind, CRtpPorts& ports, std::shared_ptr<CRtpPort> pPort,
                                               CFd fdRtcp, CPoller* pPoller, CListener* pListener,
                                               const CMediaSettings& settings, std::string& strError);
    ~CRtpSession() override;
    CRtpSession(const CRtpSession&) = delete;
    CRtpSession& operator=(const CRtpSession&) = delete;

    // Anything may change while media flows. A new remote address, or another direction, has the source
    // learned anew. False, with the reason in strError, when it cannot be; nothing has changed then.
    bool update(const CMediaSettings& settings, std::string& strError);
    const CMediaSettings& settings() const { return m_settings; }

    // Says goodbye and frees the port. Nothing is heard or sent any more.
    void end();
    bool isEnded() const { return m_eState == EState::Ended; }

    // What the far end is to hear in this tick. Returns how many samples there was room for.
    size_t hear(std::span<const uint8_t> samples) { return isEnded() ? samples.size() : m_sender.hear(samples); }

    // In this tick a key came that ends what plays.
    bool isInterrupted() const { return m_bInterrupted; }

    // From the first begin to the last end said() is what the far end said in this tick, later by the jitter
    // time. False when there is no memory.
    bool beginListening();
    void endListening();
    std::span<const uint8_t> said() const { return m_said; }

    // From now on the two hear each other, where nothing is played to them. Either may have one other.
    static bool bridge(CRtpSession& one, CRtpSession& other);
    void unbridge();
    CRtpSession* bridged() const { return m_pBridged; }

    // Null for none. It has to live until another one is set. False when there is no memory.
    bool setTap(CTap* pTap);

    // Presses keys at the far end. False when there is no room or no way.
    bool press(std::string_view keys, unsigned nMs, unsigned nGapMs);

    const CNetAddress& local() const { return m_local; }
    const CNetAddress& remote() const { return m_lock.remote(); }
    const CSourceLock& lock() const { return m_lock; }
    const CRtpCounters& counters() const override { return m_counters; }
    const CRtpSender& sender() const { return m_sender; }
    const CRtpSource* source() const { return m_intake.source(); }
    const CRtcpSide::CQuality& quality() const { return m_rtcp.quality(); }
    const char* stateText() const;

private:
    // Of what comes. The time without media counts from the last packet, from the beginning, and from each
    // change of direction.
    enum class EState
    {
        Waiting, // nothing has come yet
        Flowing,
        Silent, // nothing for so long that it was told
        Ended
    };

    CRtpSession(EKind eKind, CRtpPorts& ports, std::shared_ptr<CRtpPort> pPort, CFd fdRtcp, CListener* pListener);

    void onDatagram(std::span<uint8_t> bytes, const CNetAddress& from) override;
    void onTick(bool bSkipped) override;
    void onTickEnd() override;
    void onJump(uint64_t ullTicks) override;
    void onSettle() override;
    void onKeyDown(char cKey) override;
    void onKeyUp(char cKey, unsigned nMs) override;
    void sendRtp(std::span<uint8_t> packet) override;

    bool apply(const CMediaSettings& settings, std::string& strError);
    bool setDetectors();
    void detect();
    void sendTick();
    void tap(std::span<const uint8_t> heard);
    void onRtp(const CRtpPacket& packet, const CNetAddress& from);
    void onRtcp(std::span<uint8_t> bytes, const CNetAddress& from);
    void readRtcp();
    void sendReport(bool bBye);
    void noteMedia();
    void checkMedia();
    void post(const CSessionEvent& event);
    bool listens() const;
    bool sends() const;

    const EKind m_eKind;
    CRtpPorts& m_ports;
    const CNetAddress m_local;
    std::shared_ptr<CRtpPort> m_pPort; // until the end
    CListener* const m_pListener;
    CMediaSettings m_settings;

    EState m_eState = EState::Waiting;
    uint64_t m_ullMediaTick = 0; // from when the time without media counts
    CSourceLock m_lock;
    CRtpCounters m_counters;
    CRtpIntake m_intake;
    int m_nListeners = 0;
    std::array<uint8_t, CRtpSender::TICK> m_said;
    CKeyReceiver m_keysIn;
    bool m_bInterrupted = false;
    std::unique_ptr<CInBandKeys> m_pInBandKeys; // where no events were agreed
    std::unique_ptr<CSpeechDetector> m_pSpeech; // where somebody wants to know
    std::unique_ptr<CSrtp> m_pSrtp;
    CRtpSession* m_pBridged = nullptr;
    CTap* m_pTap = nullptr;

    CRtpSender m_sender;
    CKeySender m_keysOut;

    CRtcpSide m_rtcp;
    CNetAddress m_rtcpRemote; // learned
    CFd m_fdRtcp;
    CPoller::CWatch m_watchRtcp;

    using CEvents = std::array<CSessionEvent, 32>;
    const std::unique_ptr<CEvents> m_pEvents; // where somebody wants them
    size_t m_nEvents = 0;
};

#endif
