// RTP channels against GStreamer: what it receives is what was played, what it sends is what is recorded.
#include "G711.h"
#include "GStreamerPeer.h"
#include "RtpChannel.h"

#include <sys/resource.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

namespace
{
using Clock = std::chrono::steady_clock;

// The names of a codec: ours, and those of the far end.
struct CLineCodec
{
    const CCodec* codec;
    const char* pName;     // in pipelines
    const char* pEncoding; // in stream descriptions
    const char* pFormat;   // of raw audio

    // Between µ-law and what is on the line.
    CBytes toLine(const CBytes& bytes) const { return codec == &CODEC_PCMA ? converted(bytes, uLawToALaw()) : bytes; }
    CBytes fromLine(const CBytes& bytes) const { return codec == &CODEC_PCMA ? converted(bytes, aLawToULaw()) : bytes; }
};

void PrintTo(const CLineCodec& codec, std::ostream* pStream)
{
    *pStream << codec.pEncoding;
}

class RtpPeer : public testing::TestWithParam<CLineCodec>
{
protected:
    RtpPeer() : m_fdTimer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)), m_pPort(m_ports.open(loopback(), m_strError))
    {
        EXPECT_TRUE(m_pPort) << m_strError;
        // Where it is allowed, for us and the peer: other tests do not have to be on time.
        ::setpriority(PRIO_PROCESS, 0, -10);
        const itimerspec times = {{0, 20'000'000}, {0, 20'000'000}};
        EXPECT_EQ(::timerfd_settime(m_fdTimer.get(), 0, &times, nullptr), 0);
    }

    void open(const CNetAddress& remote)
    {
        CRtpRoute route;
        route.m_local = m_pPort->local();
        route.m_remote = remote;
        route.m_pCodec = GetParam().codec;
        route.m_nJitterMs = 1000; // the far end shares a busy machine with us
        m_pChannel = CRtpChannel::open(m_ports, route, m_strError);
        ASSERT_TRUE(m_pChannel) << m_strError;
    }

    // The ticks that have become due since the last call, one at least.
    void tick(const std::function<void()>& work = [] {})
    {
        uint64_t ullDue = 0;
        ASSERT_EQ(::read(m_fdTimer.get(), &ullDue, sizeof ullDue), static_cast<ssize_t>(sizeof ullDue));
        for (; ullDue > 0; --ullDue)
            runTick(m_ports, work);
    }

    void play(const CBytes& samples)
    {
        std::span<const uint8_t> left = samples;
        while (!left.empty() && !HasFatalFailure())
            tick([&] { left = left.subspan(m_pChannel->hear(left.first(std::min(left.size(), RTP_SAMPLES)))); });
        m_pChannel->finishHearing([](bool bOk) { EXPECT_TRUE(bOk); });
        tick();
    }

    void recordTick(CBytes& recorded)
    {
        tick([&] {
            CBytes samples(RTP_SAMPLES);
            m_pChannel->listen(samples);
            recorded.insert(recorded.end(), samples.begin(), samples.end());
        });
    }

    CFd m_fdTimer;
    CRtpPorts m_ports;
    std::string m_strError;
    std::shared_ptr<CRtpPort> m_pPort;
    std::unique_ptr<CRtpChannel> m_pChannel;
};
} // namespace

TEST_P(RtpPeer, ReceivesEverySampleOfTwoPlays)
{
    const std::string strPath = "/tmp/received";
    const CLineCodec& codec = GetParam();
    CPipeline receiver(
        std::string("udpsrc address=127.0.0.1 port=0 caps=application/x-rtp,media=audio,clock-rate=8000,") +
        "encoding-name=" + codec.pEncoding + " ! rtpjitterbuffer ! rtp" + codec.pName +
        "depay ! filesink buffer-mode=unbuffered location=" + strPath);
    open(receiver.waitAddress());
    ASSERT_FALSE(HasFailure());

    const CBytes first = speech(12282); // ends within a packet
    const CBytes second = speech(1600);
    play(first);
    for (int n = 0; n < 5; ++n)
        tick();
    play(second);

    const CBytes expected = codec.toLine(first + CBytes(160 - first.size() % 160, 0xFF) + second);
    std::error_code error;
    const auto end = Clock::now() + PEER_DEADLINE;
    while (std::filesystem::file_size(strPath, error) < expected.size() && receiver.isRunning() && Clock::now() < end)
        tick();
    receiver.finish();
    const CBytes received = readFile(strPath);
    const auto itDifferent = std::mismatch(received.begin(), received.end(), expected.begin(), expected.end()).first;
    EXPECT_TRUE(received == expected) << received.size() << " samples of " << expected.size()
                                      << " received, right until " << itDifferent - received.begin();
    EXPECT_EQ(m_ports.counters().m_ullSent, expected.size() / 160);
    std::filesystem::remove(strPath, error);
}

TEST_P(RtpPeer, IsRecordedSampleBySample)
{
    const CLineCodec& codec = GetParam();
    CPipeline sender(std::string("fdsrc fd=0 blocksize=160 ! rawaudioparse use-sink-caps=false sample-rate=8000 "
                                 "num-channels=1 format=") +
                     codec.pFormat + " ! rtp" + codec.pName +
                     "pay min-ptime=20000000 max-ptime=20000000 ! udpsink sync=true bind-address=127.0.0.1 "
                     "host=127.0.0.1 port=" +
                     std::to_string(m_pPort->local().port()));
    open(sender.waitAddress());
    m_pChannel->beginListening([](bool bOk, const std::string&) { EXPECT_TRUE(bOk); });
    ASSERT_FALSE(HasFailure());

    const CBytes sent = codec.toLine(speech(20000));
    sender.feed(sent);
    const CBytes expected = codec.fromLine(sent);
    CBytes recorded;
    const auto end = Clock::now() + PEER_DEADLINE;
    while (sender.isRunning() && Clock::now() < end && !HasFatalFailure())
        recordTick(recorded);
    for (int n = 0; n < 50; ++n)
        recordTick(recorded); // what the jitter buffer holds

    const auto itBegin = std::search(recorded.begin(), recorded.end(), expected.begin(), expected.end());
    ASSERT_TRUE(itBegin != recorded.end())
        << "late: " << m_ports.counters().m_ullLate << ", lost: " << m_ports.counters().m_ullLost
        << ", received: " << m_ports.counters().m_ullReceived;
    const auto IsSilence = [](uint8_t n) { return n == ULAW_SILENCE; };
    EXPECT_TRUE(std::all_of(recorded.begin(), itBegin, IsSilence));
    EXPECT_TRUE(std::all_of(itBegin + static_cast<std::ptrdiff_t>(expected.size()), recorded.end(), IsSilence));
    EXPECT_EQ(m_ports.counters().m_ullReceived, sent.size() / 160);
}

INSTANTIATE_TEST_SUITE_P(Codecs, RtpPeer,
                         testing::Values(CLineCodec{&CODEC_PCMU, "pcmu", "PCMU", "mulaw"},
                                         CLineCodec{&CODEC_PCMA, "pcma", "PCMA", "alaw"}),
                         [](const auto& codec) { return codec.param.pEncoding; });
