// RTCP packets (RFC 3550): writing reports, taking apart those that come in.
#include "RtcpPacket.h"
#include "RtcpSide.h"
#include "RtpTestSupport.h"

#include <random>
#include <set>

namespace
{
CBytes written(const CRtcpReport& report)
{
    std::array<uint8_t, RTCP_MAX_REPORT> bytes{};
    const size_t nSize = writeRtcp(report, bytes);
    return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(nSize)};
}

CRtcpReport fullReport()
{
    CRtcpReport report;
    report.m_nSource = 0x01020304;
    report.m_sender = {0x1112131415161718, 0x21222324, 0x31323334, 0x41424344};
    report.m_block = {0x51525354, 0x61, -2, 0x71727374, 0x81828384, 0x91929394, 0xA1A2A3A4};
    report.m_name = "abc";
    report.m_bBye = true;
    return report;
}
} // namespace

TEST(RtcpPacket, HasTheBytesOfTheStandard)
{
    const CBytes expected = {0x81, 200,  0,    12,   1,    2,    3,    4,    0x11, 0x12, 0x13, 0x14, 0x15,
                             0x16, 0x17, 0x18, 0x21, 0x22, 0x23, 0x24, 0x31, 0x32, 0x33, 0x34, 0x41, 0x42,
                             0x43, 0x44, 0x51, 0x52, 0x53, 0x54, 0x61, 0xFF, 0xFF, 0xFE, 0x71, 0x72, 0x73,
                             0x74, 0x81, 0x82, 0x83, 0x84, 0x91, 0x92, 0x93, 0x94, 0xA1, 0xA2, 0xA3, 0xA4,
                             0x81, 202,  0,    3,    1,    2,    3,    4,    1,    3,    'a',  'b',  'c',
                             0,    0,    0,    0x81, 203,  0,    1,    1,    2,    3,    4};
    EXPECT_EQ(written(fullReport()), expected);
}

TEST(RtcpPacket, IsReadAsItWasWritten)
{
    const auto news = parseRtcp(written(fullReport()), 0x51525354);
    ASSERT_TRUE(news);
    EXPECT_EQ(news->m_sender, 0x01020304U);
    EXPECT_EQ(news->m_ullTime, 0x1112131415161718U);
    EXPECT_TRUE(news->m_bBye);
    ASSERT_TRUE(news->m_aboutUs);
    EXPECT_EQ(news->m_aboutUs->m_nFractionLost, 0x61);
    EXPECT_EQ(news->m_aboutUs->m_nLost, -2);
    EXPECT_EQ(news->m_aboutUs->m_nDelay, 0xA1A2A3A4U);
    EXPECT_FALSE(parseRtcp(written(fullReport()), 7)->m_aboutUs);
}

TEST(RtcpPacket, OneWhoDoesNotSendReportsWhatItReceives)
{
    CRtcpReport report = fullReport();
    report.m_sender.reset();
    report.m_bBye = false;
    const auto news = parseRtcp(written(report), 0x51525354);
    ASSERT_TRUE(news && news->m_aboutUs);
    EXPECT_FALSE(news->m_ullTime);
    EXPECT_FALSE(news->m_bBye);
}

TEST(RtcpPacket, NamesOfAnyLengthArePaddedOrCut)
{
    for (size_t nLength = 0; nLength < 100; ++nLength)
    {
        CRtcpReport report = fullReport();
        const std::string strName(nLength, 'n');
        report.m_name = strName;
        const CBytes bytes = written(report);
        EXPECT_EQ(bytes.size() % 4, 0U);
        EXPECT_TRUE(parseRtcp(bytes, 0)) << nLength;
    }
}

TEST(RtcpPacket, WhatIsNotWholeIsRefused)
{
    const CBytes bytes = written(fullReport());
    for (size_t nSize = 0; nSize < bytes.size(); ++nSize)
    {
        const bool bWholePackets = nSize == 52 || nSize == 68;
        EXPECT_EQ(parseRtcp(std::span(bytes).first(nSize), 0).has_value(), bWholePackets) << nSize;
    }
    EXPECT_FALSE(parseRtcp(std::span(bytes).subspan(52), 0)) << "no report at its beginning";
}

TEST(RtcpPacket, SurvivesAnyBytes)
{
    std::mt19937 random(1);
    const CBytes good = written(fullReport());
    for (int nRun = 0; nRun < 20000; ++nRun)
    {
        CBytes bytes = good;
        for (unsigned n = 0; n <= random() % 4; ++n)
            bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
        bytes.resize(random() % (bytes.size() + 1));
        parseRtcp(bytes, 0x51525354);
    }
}

TEST(RtcpPacket, IsToldFromRtpByItsType)
{
    EXPECT_TRUE(isRtcp(written(fullReport())));
    EXPECT_FALSE(isRtcp(rtpBytes({true, 0, 1, 1, 1}, {1})));
    EXPECT_FALSE(isRtcp(CBytes{0x80}));
}

namespace
{
class RtcpSide : public testing::Test
{
protected:
    CBytes report(CRtcpSide& side, CRtpSource* pSource, CRtcpSide::Time now, bool bBye = false)
    {
        std::array<uint8_t, RTCP_MAX_REPORT> bytes{};
        const size_t nSize = side.report(m_sender, pSource, 5, now, bBye, bytes);
        return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(nSize)};
    }

    CRtpSender m_sender;
    CRtcpSide m_ours{"ours"};
    CRtcpSide m_theirs{"theirs"};
    const CRtcpSide::Time m_start = CRtcpSide::Time(std::chrono::seconds(1700000000));
};

class CNoOutput : public CRtpSender::COutput
{
    void sendRtp(std::span<uint8_t>) override {}
};
} // namespace

TEST_F(RtcpSide, ReportsAreDueEveryFewSecondsAtUnevenDistances)
{
    std::vector<uint64_t> vDue;
    for (uint64_t ullTick = 0; ullTick < 50 * 3600; ++ullTick)
        if (m_ours.isDue(ullTick))
            vDue.push_back(ullTick);
    ASSERT_GT(vDue.size(), 3600U / 7);
    EXPECT_LE(vDue[0], 160U);
    std::set<uint64_t> distances;
    for (size_t n = 1; n < vDue.size(); ++n)
    {
        distances.insert(vDue[n] - vDue[n - 1]);
        EXPECT_GE(vDue[n] - vDue[n - 1], 2 * 50U);
        EXPECT_LE(vDue[n] - vDue[n - 1], 7 * 50U);
    }
    EXPECT_GT(distances.size(), 50U);
}

TEST_F(RtcpSide, RoundTripIsWhatTheReportsTookOnTheWay)
{
    using std::chrono::milliseconds;
    CNoOutput output;
    m_sender.setFormat(CODEC_PCMU, 0, 20);
    m_sender.endTick(1, true, output);
    // A sender report of ours, 30 ms on the way, answered 500 ms later, 30 ms on the way back.
    ASSERT_TRUE(m_theirs.onPacket(report(m_ours, nullptr, m_start), 99, m_start + milliseconds(30)));
    CRtpSource ourSource({false, 0, 1, 1, m_sender.source()});
    ASSERT_TRUE(m_ours.onPacket(report(m_theirs, &ourSource, m_start + milliseconds(530)), m_sender.source(),
                                m_start + milliseconds(560)));
    ASSERT_TRUE(m_ours.quality().m_roundTrip);
    EXPECT_NEAR(static_cast<double>(m_ours.quality().m_roundTrip->count()), 60000, 100);
}

TEST_F(RtcpSide, SendsASenderReportOnlyAfterItHasSent)
{
    CNoOutput output;
    m_sender.setFormat(CODEC_PCMU, 0, 20);
    EXPECT_EQ(report(m_ours, nullptr, m_start)[1], 201);
    m_sender.endTick(1, true, output);
    EXPECT_EQ(report(m_ours, nullptr, m_start)[1], 200);
    EXPECT_EQ(report(m_ours, nullptr, m_start)[1], 201);
}

TEST_F(RtcpSide, GoodbyeIsTold)
{
    ASSERT_TRUE(m_theirs.onPacket(report(m_ours, nullptr, m_start, true), 1, m_start));
    EXPECT_TRUE(m_theirs.quality().m_bBye);
    EXPECT_FALSE(m_theirs.onPacket(CBytes{1, 2, 3}, 1, m_start));
}
