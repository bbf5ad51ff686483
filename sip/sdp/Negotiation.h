// Offer and answer: what the two sides of a leg agree on.
#ifndef SIP_NEGOTIATION_H
#define SIP_NEGOTIATION_H

#include "MediaDescription.h"
#include "Sdp.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class ESrtp
{
    Off,
    Allowed, // where the peer offers it; we do not
    Required
};

struct CNegotiationSettings
{
    std::vector<CSdpCodec> m_vCodecs; // the best first, without telephone-event
    bool m_bPeersOrder = true;        // the peer's best of ours, not ours of the peer's
    unsigned m_uPtime = 20;
    ESrtp m_eSrtp = ESrtp::Allowed;
};

class CNegotiation
{
public:
    explicit CNegotiation(CNegotiationSettings settings);

    // Where the driver listens. strAddress is what peers are told.
    void setLocal(const std::string& strAddress, unsigned uPort, unsigned uRtcpPort);

    // An offer of ours, with what was agreed on before if anything was.
    std::string makeOffer();
    // False, with the reason in strError, when nothing in it can be used; all is as before then.
    // After a provisional one another one may come.
    bool takeAnswer(const std::string& strText, bool bProvisional, std::string& strError);
    // The answer to the peer's offer; nothing, with the reason, when there is nothing in common.
    std::optional<std::string> answerOffer(const std::string& strText, std::string& strError);
    // An offer of ours that came to nothing.
    void forgetOffer() { m_pending.reset(); }

    void setHold(bool bHold) { m_bHold = bHold; }
    bool isHeld() const { return m_bHold; }
    bool isHeldByPeer() const { return m_bHeldByPeer; }
    bool hasOffered() const { return m_pending.has_value(); }
    bool isAgreed() const { return m_bAgreed; }
    const CMediaDescription& media() const { return m_media; }
    const std::string& localText() const { return m_strLocal; }

private:
    CSdpMedia ourMedia(EDirection eDirection) const;
    bool takeRemote(const CSdp& remote, const CSdpMedia& media, const CSdpMedia& ours, bool bPeerOffered,
                    std::string& strError);
    bool chooseCodecs(const CSdpMedia& remote, const CSdpMedia& ours, bool bPeerOffered, CMediaDescription& result,
                      std::string& strError) const;
    bool takeKeys(const CSdpMedia& remote, bool bPeerOffered, CMediaDescription& result, std::string& strError);
    std::string describe(std::vector<CSdpMedia> vMedia);
    EDirection wanted() const { return m_bHold ? EDirection::SendOnly : EDirection::SendReceive; }

    const CNegotiationSettings m_settings;
    const uint64_t m_ullSession;
    uint64_t m_ullVersion = 0;
    std::string m_strLocal; // the last one sent
    std::string m_strAddress;
    unsigned m_uPort = 0;
    unsigned m_uRtcpPort = 0;
    std::string m_strOurKey;
    std::string m_strOurSuite;
    std::string m_strCryptoTag = "1";
    std::optional<CSdpMedia> m_pending; // what we have offered
    std::vector<CSdpMedia> m_vOthers;   // the peer's media that we refuse, to be refused again
    size_t m_nAudio = 0;                // the place of ours
    CMediaDescription m_media;
    bool m_bAgreed = false;
    bool m_bHold = false;
    bool m_bHeldByPeer = false;
};

#endif
