// RTP packets: writing the header of those that go out, taking apart those that come in.
#include "RtpPacket.h"
#include "RtpTestSupport.h"

#include <random>

namespace
{
const CBytes HEADER = {0x80, 0x88, 0x12, 0x34, 0x01, 0x02, 0x03, 0x04, 0xA1, 0xA2, 0xA3, 0xA4};

CBytes withFirstByte(uint8_t nFirst)
{
    CBytes bytes = HEADER;
    bytes[0] = nFirst;
    return bytes;
}

std::optional<CBytes> payload(const CBytes& bytes)
{
    const std::optional<CRtpPacket> packet = parseRtpPacket(bytes);
    return packet ? std::optional(CBytes(packet->m_payload.begin(), packet->m_payload.end())) : std::nullopt;
}
} // namespace

TEST(RtpPacket, WritesTheHeaderByteForByte)
{
    const CRtpHeader header = {true, 8, 0x1234, 0x01020304, 0xA1A2A3A4};
    EXPECT_EQ(rtpBytes(header, {}), HEADER);
}

TEST(RtpPacket, LeavesTheMarkerBitOutOfOthers)
{
    EXPECT_EQ(rtpBytes({false, 8, 0, 0, 0}, {})[1], 0x08);
}

TEST(RtpPacket, ReadsTheHeaderByteForByte)
{
    const std::optional<CRtpPacket> packet = parseRtpPacket(HEADER);
    ASSERT_TRUE(packet);
    EXPECT_TRUE(packet->m_header.m_bMarker);
    EXPECT_EQ(packet->m_header.m_nPayloadType, 8);
    EXPECT_EQ(packet->m_header.m_nSequence, 0x1234);
    EXPECT_EQ(packet->m_header.m_nTimestamp, 0x01020304U);
    EXPECT_EQ(packet->m_header.m_nSource, 0xA1A2A3A4U);
    EXPECT_TRUE(packet->m_payload.empty());
}

TEST(RtpPacket, FindsThePayload)
{
    EXPECT_EQ(payload(HEADER + CBytes{1, 2, 3}), (CBytes{1, 2, 3}));
}

TEST(RtpPacket, SkipsContributingSources)
{
    EXPECT_EQ(payload(withFirstByte(0x82) + CBytes(8, 9) + CBytes{1, 2, 3}), (CBytes{1, 2, 3}));
}

TEST(RtpPacket, SkipsAHeaderExtension)
{
    const CBytes extension = {0xBE, 0xDE, 0, 2, 9, 9, 9, 9, 9, 9, 9, 9};
    EXPECT_EQ(payload(withFirstByte(0x90) + extension + CBytes{1, 2, 3}), (CBytes{1, 2, 3}));
    EXPECT_EQ(payload(withFirstByte(0x91) + CBytes(4, 9) + extension + CBytes{1, 2, 3}), (CBytes{1, 2, 3}));
}

TEST(RtpPacket, DropsPadding)
{
    EXPECT_EQ(payload(withFirstByte(0xA0) + CBytes{1, 2, 3, 0, 0, 3}), (CBytes{1, 2, 3}));
    EXPECT_EQ(payload(withFirstByte(0xA0) + CBytes{0, 2}), CBytes{});
}

TEST(RtpPacket, RefusesWhatIsTooShortForItsHeader)
{
    for (size_t nSize = 0; nSize < HEADER.size(); ++nSize)
        EXPECT_FALSE(payload(CBytes(HEADER.begin(), HEADER.begin() + static_cast<std::ptrdiff_t>(nSize)))) << nSize;
}

TEST(RtpPacket, RefusesOtherVersions)
{
    EXPECT_FALSE(payload(withFirstByte(0x00)));
    EXPECT_FALSE(payload(withFirstByte(0x40)));
    EXPECT_FALSE(payload(withFirstByte(0xC0)));
}

TEST(RtpPacket, RefusesContributingSourcesPastTheEnd)
{
    EXPECT_FALSE(payload(withFirstByte(0x82) + CBytes(7, 9)));
}

TEST(RtpPacket, RefusesAnExtensionPastTheEnd)
{
    EXPECT_FALSE(payload(withFirstByte(0x90) + CBytes{0xBE, 0xDE, 0}));
    EXPECT_FALSE(payload(withFirstByte(0x90) + CBytes{0xBE, 0xDE, 0, 1, 9, 9, 9}));
    EXPECT_FALSE(payload(withFirstByte(0x90) + CBytes{0xBE, 0xDE, 0xFF, 0xFF, 9, 9, 9, 9}));
}

TEST(RtpPacket, RefusesPaddingThatIsNoneOrMoreThanThereIs)
{
    EXPECT_FALSE(payload(withFirstByte(0xA0)));
    EXPECT_FALSE(payload(withFirstByte(0xA0) + CBytes{1, 2, 0}));
    EXPECT_FALSE(payload(withFirstByte(0xA0) + CBytes{1, 2, 4}));
}

TEST(RtpPacket, FindsPayloadsOnlyWithinThePacket)
{
    std::mt19937 random(1);
    for (int n = 0; n < 100000; ++n)
    {
        CBytes bytes(random() % 64);
        for (uint8_t& nByte : bytes)
            nByte = static_cast<uint8_t>(random());
        if (!bytes.empty())
            bytes[0] = static_cast<uint8_t>(0x80 | (bytes[0] & 0x3F));
        const std::optional<CRtpPacket> packet = parseRtpPacket(bytes);
        if (packet && !packet->m_payload.empty())
        {
            ASSERT_GE(packet->m_payload.data(), bytes.data() + RTP_HEADER_SIZE);
            ASSERT_LE(packet->m_payload.data() + packet->m_payload.size(), bytes.data() + bytes.size());
        }
    }
}
