// Channels that are RTP streams.
#ifndef DRIVER_RTP_CHANNEL_H
#define DRIVER_RTP_CHANNEL_H

#include "Channel.h"
#include "RtpSession.h"

#include <memory>
#include <string>

// How an RTP channel of the table is set up.
struct CRtpRoute
{
    CNetAddress m_local;
    CNetAddress m_remote;
    const CCodec* m_pCodec = &CODEC_PCMU;
    unsigned m_nJitterMs = 60; // by which recordings are behind, so that packets may be late by as much
};

// What is heard goes out in the tick in which it is heard; what does not fill its packet is filled up with
// silence. Recordings get silence for what is lost or not sent.
//
// A channel of the table has its session for itself: it sends while something plays, and nothing else, and
// only packets of its codec from its remote address count. A channel on a call is a view of the call's session,
// which goes on without it.
class CRtpChannel : public CChannel
{
public:
    // Null, with the reason in strError, when the local address cannot be bound or another channel has
    // the same local and remote address. The ports outlive the channel.
    static std::unique_ptr<CRtpChannel> open(CRtpPorts& ports, const CRtpRoute& route, std::string& strError);

    explicit CRtpChannel(std::shared_ptr<CRtpSession> pSession) : m_pSession(std::move(pSession)) {}
    ~CRtpChannel() override { endListening(); }

    const char* kind() const override { return "rtp"; }
    bool isLive() const override { return true; }
    bool isInterrupted() const override { return m_pSession->isInterrupted(); }
    const CNetAddress& local() const { return m_pSession->local(); }

    // Takes what fills a tick.
    size_t hear(std::span<const uint8_t> samples) override { return m_pSession->hear(samples); }

    void beginListening(BeginFunction done) override;
    size_t listen(std::span<uint8_t> samples) override;
    void endListening() override;

private:
    const std::shared_ptr<CRtpSession> m_pSession;
    bool m_bListens = false;
};

#endif
