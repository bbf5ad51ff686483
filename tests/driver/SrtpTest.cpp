// SRTP: known bytes, both directions, and what is not authentic.
#include "Srtp.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

using testing::ElementsAreArray;
using testing::HasSubstr;

namespace
{
constexpr const char* SUITE = "AES_CM_128_HMAC_SHA1_80";

// A packet with room for what is added.
static_assert(alignof(size_t) % SRTP_ALIGNMENT == 0);
struct alignas(size_t) CBuffer
{
    std::array<uint8_t, 400> m_bytes = {};
    size_t m_nSize = 0;

    CBuffer() = default;
    CBuffer(std::initializer_list<uint8_t> bytes) : m_nSize(bytes.size())
    {
        std::copy(bytes.begin(), bytes.end(), m_bytes.begin());
    }
    std::span<uint8_t> packet() { return std::span(m_bytes).first(m_nSize); }
    std::vector<uint8_t> copy() { return {packet().begin(), packet().end()}; }
};

CBuffer rtp(uint16_t nSequence, uint32_t nSource = 0xCAFEBABE)
{
    CBuffer buffer = {0x80, 0x0f, 0,    0,    0xde, 0xca, 0xfb, 0xad, 0,    0,    0,    0,    0xab, 0xab,
                      0xab, 0xab, 0xab, 0xab, 0xab, 0xab, 0xab, 0xab, 0xab, 0xab, 0xab, 0xab, 0xab, 0xab};
    buffer.m_bytes[2] = static_cast<uint8_t>(nSequence >> 8);
    buffer.m_bytes[3] = static_cast<uint8_t>(nSequence);
    for (int n = 0; n < 4; ++n)
        buffer.m_bytes[8 + static_cast<size_t>(n)] = static_cast<uint8_t>(nSource >> (24 - 8 * n));
    return buffer;
}

CBuffer rtcp()
{
    return {0x80, 201, 0, 1, 0xCA, 0xFE, 0xBA, 0xBE};
}

std::vector<uint8_t> key(uint8_t nFirst, size_t nLength)
{
    std::vector<uint8_t> vKey(nLength);
    for (size_t n = 0; n < nLength; ++n)
        vKey[n] = static_cast<uint8_t>(nFirst + n);
    return vKey;
}

// The two ends of a session.
class Srtp : public testing::TestWithParam<const char*>
{
protected:
    static std::unique_ptr<CSrtp> make(const CSrtpKeys& keys)
    {
        std::string strError;
        auto pSrtp = CSrtp::create(keys, strError);
        EXPECT_NE(pSrtp, nullptr) << strError;
        return pSrtp;
    }

    const size_t m_nLength = srtpKeyLength(GetParam());
    const CSrtpKeys m_keys = {GetParam(), key(1, m_nLength), key(101, m_nLength)};
    const std::unique_ptr<CSrtp> m_pHere = make(m_keys);
    const std::unique_ptr<CSrtp> m_pThere = make({GetParam(), m_keys.m_vReceive, m_keys.m_vSend});
};
} // namespace

INSTANTIATE_TEST_SUITE_P(EachSuite, Srtp,
                         testing::Values("AES_CM_128_HMAC_SHA1_80", "AES_CM_128_HMAC_SHA1_32",
                                         "AES_256_CM_HMAC_SHA1_80", "AES_256_CM_HMAC_SHA1_32"));

TEST_P(Srtp, ComesBackAsItWas)
{
    for (uint16_t n = 65530; n != 5; ++n)
    {
        CBuffer buffer = rtp(n);
        const auto before = buffer.copy();
        buffer.m_nSize = m_pHere->protect(buffer.m_bytes, buffer.m_nSize);
        ASSERT_GT(buffer.m_nSize, before.size());
        EXPECT_NE(buffer.m_bytes[12], 0xab);
        buffer.m_nSize = m_pThere->unprotect(buffer.packet());
        EXPECT_THAT(buffer.packet(), ElementsAreArray(before)) << n;
    }
}

TEST_P(Srtp, CoversReportsToo)
{
    CBuffer buffer = rtcp();
    const auto before = buffer.copy();
    buffer.m_nSize = m_pThere->protectRtcp(buffer.m_bytes, buffer.m_nSize);
    EXPECT_EQ(buffer.m_nSize, before.size() + 14);
    buffer.m_nSize = m_pHere->unprotectRtcp(buffer.packet());
    EXPECT_THAT(buffer.packet(), ElementsAreArray(before));
}

TEST_P(Srtp, RefusesWhatWasChanged)
{
    CBuffer sent = rtp(7);
    sent.m_nSize = m_pHere->protect(sent.m_bytes, sent.m_nSize);
    for (size_t n = 0; n < sent.m_nSize; ++n)
    {
        CBuffer changed = sent;
        changed.m_bytes[n] = static_cast<uint8_t>(changed.m_bytes[n] ^ 0x10);
        EXPECT_EQ(0U, m_pThere->unprotect(changed.packet())) << "byte " << n;
    }
    EXPECT_GT(m_pThere->unprotect(sent.packet()), 0U);
}

TEST_P(Srtp, RefusesARepetition)
{
    CBuffer sent = rtp(7);
    sent.m_nSize = m_pHere->protect(sent.m_bytes, sent.m_nSize);
    CBuffer again = sent;
    EXPECT_GT(m_pThere->unprotect(sent.packet()), 0U);
    EXPECT_EQ(0U, m_pThere->unprotect(again.packet()));
}

TEST_P(Srtp, TakesPacketsThatCameInAnotherOrder)
{
    std::vector<CBuffer> vSent;
    for (uint16_t n = 0; n < 64; ++n)
    {
        vSent.push_back(rtp(n));
        vSent.back().m_nSize = m_pHere->protect(vSent.back().m_bytes, vSent.back().m_nSize);
    }
    for (auto it = vSent.rbegin(); it != vSent.rend(); ++it)
        EXPECT_GT(m_pThere->unprotect(it->packet()), 0U);
}

TEST_P(Srtp, RefusesAnyBytes)
{
    for (size_t nSize = 0; nSize < 300; ++nSize)
    {
        CBuffer rubbish = rtp(static_cast<uint16_t>(nSize));
        rubbish.m_nSize = nSize;
        CBuffer report = rubbish;
        EXPECT_EQ(0U, m_pThere->unprotect(rubbish.packet()));
        EXPECT_EQ(0U, m_pThere->unprotectRtcp(report.packet()));
    }
}

TEST_P(Srtp, TakesSourcesOneAfterTheOther)
{
    for (const uint32_t nSource : {1U, 2U, 1U})
    {
        static uint16_t s_nSequence = 0;
        CBuffer sent = rtp(++s_nSequence, nSource);
        sent.m_nSize = m_pHere->protect(sent.m_bytes, sent.m_nSize);
        EXPECT_GT(m_pThere->unprotect(sent.packet()), 0U) << nSource;
    }
}

// The packet that the authors of the library publish with their key.
TEST(SrtpBytes, AreThoseOfOthers)
{
    const std::vector<uint8_t> vKey = {0xe1, 0xf9, 0x7a, 0x0d, 0x3e, 0x01, 0x8b, 0xe0, 0xd6, 0x4f,
                                       0xa3, 0x2c, 0x06, 0xde, 0x41, 0x39, 0x0e, 0xc6, 0x75, 0xad,
                                       0x49, 0x8a, 0xfe, 0xeb, 0xb6, 0x96, 0x0b, 0x3a, 0xab, 0xe6};
    const std::vector<uint8_t> vSent = {0x80, 0x0f, 0x12, 0x34, 0xde, 0xca, 0xfb, 0xad, 0xca, 0xfe, 0xba, 0xbe, 0x4e,
                                        0x55, 0xdc, 0x4c, 0xe7, 0x99, 0x78, 0xd8, 0x8c, 0xa4, 0xd2, 0x15, 0x94, 0x9d,
                                        0x24, 0x02, 0xb7, 0x8d, 0x6a, 0xcc, 0x99, 0xea, 0x17, 0x9b, 0x8d, 0xbb};
    std::string strError;
    const auto pSrtp = CSrtp::create({SUITE, vKey, vKey}, strError);
    ASSERT_NE(pSrtp, nullptr) << strError;
    CBuffer buffer = rtp(0x1234);
    buffer.m_nSize = pSrtp->protect(buffer.m_bytes, buffer.m_nSize);
    EXPECT_THAT(buffer.packet(), ElementsAreArray(vSent));
}

TEST(SrtpKeys, OfAWrongLengthOrSuiteAreRefused)
{
    std::string strError;
    EXPECT_EQ(CSrtp::create({SUITE, key(1, 29), key(1, 30)}, strError), nullptr);
    EXPECT_THAT(strError, HasSubstr("30 bytes"));
    EXPECT_EQ(CSrtp::create({SUITE, key(1, 30), key(1, 46)}, strError), nullptr);
    EXPECT_EQ(CSrtp::create({"ROT13", key(1, 30), key(1, 30)}, strError), nullptr);
    EXPECT_THAT(strError, HasSubstr("unknown SRTP suite \"ROT13\""));
    EXPECT_EQ(0U, srtpKeyLength("ROT13"));
}
