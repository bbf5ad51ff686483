// Channels that are RTP streams: G.711 in packets of 20 ms between two addresses.
#ifndef DRIVER_RTP_CHANNEL_H
#define DRIVER_RTP_CHANNEL_H

#include "Channel.h"
#include "JitterBuffer.h"
#include "NetAddress.h"
#include "RtpPort.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>

// How an RTP channel is set up.
struct CRtpRoute
{
    CNetAddress m_local;
    CNetAddress m_remote;
    ERtpCodec m_eCodec = ERtpCodec::Pcmu;
    int m_nJitterMs = 60; // by which recordings are behind, so that packets may be late by as much
};

// Sends while something plays, and nothing else. A play that ends within a packet is filled up with
// silence. Sequence numbers go on without a gap, timestamps go on in pauses too; the first packet after
// a pause has the marker bit.
//
// Of what arrives only packets of the codec from the remote address count. They are dropped unless a
// recording listens; that gets silence for what is lost or not sent.
class CRtpChannel : public CChannel, private CRtpReceiver
{
public:
    // Null, with the reason in strError, when the local address cannot be bound or another channel has
    // the same local and remote address. The ports outlive the channel.
    static std::unique_ptr<CRtpChannel> open(CRtpPorts& ports, const CRtpRoute& route, std::string& strError);

    CRtpChannel(const CRtpChannel&) = delete;
    CRtpChannel& operator=(const CRtpChannel&) = delete;
    ~CRtpChannel() override;

    const char* kind() const override { return "rtp"; }
    const CNetAddress& local() const { return m_pPort->local(); }

    // Takes what fills a packet, once in a tick.
    size_t hear(std::span<const uint8_t> samples) override;
    void finishHearing(FinishFunction done) override;

    void beginListening(BeginFunction done) override;
    size_t listen(std::span<uint8_t> samples) override;
    void endListening() override;

private:
    CRtpChannel(CRtpPorts& ports, std::shared_ptr<CRtpPort> pPort, const CRtpRoute& route);

    void beginPacket();
    void sendPacket();
    void onRtp(const CRtpPacket& packet) override;

    CRtpPorts& m_ports;
    const std::shared_ptr<CRtpPort> m_pPort;
    const CNetAddress m_remote;
    const ERtpCodec m_eCodec;
    const int m_nJitterMs;
    bool m_bJoined = false;

    CRtpHeader m_header; // of the packet that is sent next
    bool m_bSent = false;
    uint64_t m_ullSentTick = 0; // of the last packet
    size_t m_nSamples = 0;      // in the packet so far
    std::array<uint8_t, RTP_PACKET_SIZE> m_packet{};

    std::unique_ptr<CJitterBuffer> m_pJitterBuffer; // while a recording listens
};

#endif
