// Requests found in bytes: in step, behind rubbish of any length, cut between two reads.
#include "RequestFramer.h"
#include "DriverTestSupport.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace
{
constexpr int ALICE = 1;
constexpr int BOB = 2;
constexpr int STRANGER = 77;

CSamples bytes(const structMICMD& cmd)
{
    const auto* pBytes = reinterpret_cast<const uint8_t*>(&cmd);
    return {pBytes, pBytes + sizeof(cmd)};
}

CSamples zeros(size_t nCount)
{
    return CSamples(nCount);
}

// Two clients whose latest request was number 100, and the requests that come out of the framer.
class RequestFramer : public testing::Test
{
protected:
    static CSamples ping(int nConnectID, uint32_t nSequenceNo)
    {
        return bytes(command(MICMD_PING, nConnectID, nSequenceNo));
    }
    static CSamples connect(uint32_t nSequenceNo, const std::string& strRspPrefix = MI_RESPONSE_PIPE_PREFIX)
    {
        structMICMD cmd = command(MICMD_CONNECT, -1, nSequenceNo);
        setText(cmd.connect.szRspPipe, strRspPrefix + "5");
        setText(cmd.connect.szEvtPipe, MI_EVENT_PIPE_PREFIX "5");
        return bytes(cmd);
    }

    // Hands over bytes, as many at once as fit, and takes out what there is. bAll: the pipe is empty then.
    void feed(const CSamples& bytes, bool bAll = true)
    {
        size_t nDone = 0;
        do
        {
            const std::span<unsigned char> room = m_framer.room();
            ASSERT_GE(room.size(), sizeof(structMICMD));
            const size_t nCount = std::min(room.size(), bytes.size() - nDone);
            std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(nDone), nCount, room.begin());
            nDone += nCount;
            m_framer.added(nCount, bAll && nDone == bytes.size());
            takeOut();
        } while (nDone < bytes.size());
    }
    void takeOut()
    {
        structMICMD cmd;
        while (m_framer.next(cmd))
        {
            m_vTaken.push_back(bytes(cmd));
            const auto it = m_mapLatest.find(cmd.nConnectID);
            if (it != m_mapLatest.end() && cmd.s_micmd != MICMD_CONNECT)
                it->second = cmd.nSequenceNo;
        }
    }

    std::map<int, uint32_t> m_mapLatest = {{ALICE, 100}, {BOB, 100}};
    std::vector<CSamples> m_vTaken;
    CRequestFramer m_framer{[this](int nConnectID) -> std::optional<uint32_t> {
        const auto it = m_mapLatest.find(nConnectID);
        return it != m_mapLatest.end() ? std::optional(it->second) : std::nullopt;
    }};
};
} // namespace

TEST_F(RequestFramer, GivesOutRequestsInOrderByteByByte)
{
    feed(ping(ALICE, 101) + ping(BOB, 101) + connect(7));
    EXPECT_THAT(m_vTaken, ElementsAre(ping(ALICE, 101), ping(BOB, 101), connect(7)));
    EXPECT_EQ(m_framer.takeRubbish(), 0U);
    EXPECT_EQ(m_framer.waiting(), 0U);
}

TEST_F(RequestFramer, FindsARequestBehindRubbishOfAnyLength)
{
    uint32_t nSequenceNo = 100;
    for (size_t nSize = 0; nSize < 900; ++nSize)
    {
        ++nSequenceNo;
        m_vTaken.clear();
        feed(noise(nSize, static_cast<unsigned>(nSize)) + ping(ALICE, nSequenceNo) + ping(BOB, nSequenceNo));
        ASSERT_THAT(m_vTaken, ElementsAre(ping(ALICE, nSequenceNo), ping(BOB, nSequenceNo))) << nSize;
        ASSERT_EQ(m_framer.takeRubbish(), nSize);
    }
}

TEST_F(RequestFramer, FindsAConnectBehindRubbish)
{
    feed(noise(7) + connect(1) + noise(281) + connect(2));
    EXPECT_THAT(m_vTaken, ElementsAre(connect(1), connect(2)));
}

TEST_F(RequestFramer, FindsEachOfManyRequestsBetweenThousandsOfPiecesOfRubbish)
{
    CSamples bytes;
    std::vector<CSamples> vSent;
    size_t nRubbish = 0;
    for (uint32_t n = 1; n <= 3000; ++n)
    {
        const CSamples rubbish = noise(n * 7919U % 1000U, n);
        nRubbish += rubbish.size();
        bytes = bytes + rubbish;
        vSent.push_back(ping(n % 2 == 0 ? ALICE : BOB, 100 + (n + 1) / 2));
        bytes.insert(bytes.end(), vSent.back().begin(), vSent.back().end());
        if (n % 500 == 0)
        {
            feed(bytes);
            bytes.clear();
        }
    }
    EXPECT_EQ(m_vTaken, vSent);
    EXPECT_EQ(m_framer.takeRubbish(), nRubbish);
}

TEST_F(RequestFramer, FindsRequestsBehindRubbishFullOfClientIdsAndCodes)
{
    for (const int32_t nWord : {0, 1, 2, 13, 16})
    {
        for (const size_t nWords : {1U, 20U, 69U, 70U, 71U, 200U})
        {
            m_mapLatest[ALICE] = 100;
            m_vTaken.clear();
            CSamples rubbish(nWords * 4);
            for (size_t n = 0; n < rubbish.size(); n += 4)
                std::memcpy(rubbish.data() + n, &nWord, 4);
            feed(rubbish + ping(ALICE, 101) + ping(ALICE, 102));
            ASSERT_GE(m_vTaken.size(), 2U);
            EXPECT_EQ(m_vTaken[m_vTaken.size() - 2], ping(ALICE, 101)) << nWord << " " << nWords;
            EXPECT_EQ(m_vTaken.back(), ping(ALICE, 102));
        }
    }
}

TEST_F(RequestFramer, FindsRequestsBetweenThePiecesOfALongWrite)
{
    const CSamples longWrite = noise(10000);
    feed(slice(longWrite, 0, 4096) + ping(ALICE, 101) + slice(longWrite, 4096, 8192) + ping(BOB, 101) +
         slice(longWrite, 8192, 10000) + ping(ALICE, 102));
    EXPECT_THAT(m_vTaken, ElementsAre(ping(ALICE, 101), ping(BOB, 101), ping(ALICE, 102)));
}

TEST_F(RequestFramer, KeepsARequestThatAReadHasCut)
{
    for (size_t nCut = 1; nCut < sizeof(structMICMD); ++nCut)
    {
        m_mapLatest[ALICE] = 100;
        m_vTaken.clear();
        const CSamples bytes = ping(ALICE, 101) + ping(ALICE, 102);
        feed(slice(bytes, 0, 280 + nCut), false);
        ASSERT_THAT(m_vTaken, ElementsAre(ping(ALICE, 101)));
        ASSERT_EQ(m_framer.waiting(), nCut);
        feed(slice(bytes, 280 + nCut, 560));
        ASSERT_THAT(m_vTaken, ElementsAre(ping(ALICE, 101), ping(ALICE, 102))) << nCut;
    }
    EXPECT_EQ(m_framer.takeRubbish(), 0U);
}

TEST_F(RequestFramer, KeepsARequestThatAReadHasCutBehindRubbish)
{
    for (const size_t nRubbish : {1U, 12U, 279U, 280U, 281U, 600U})
    {
        for (size_t nCut = 0; nCut <= sizeof(structMICMD); ++nCut)
        {
            m_mapLatest[ALICE] = 100;
            m_vTaken.clear();
            const CSamples bytes = noise(nRubbish) + ping(ALICE, 101);
            feed(slice(bytes, 0, nRubbish + nCut), false);
            feed(slice(bytes, nRubbish + nCut, bytes.size()));
            ASSERT_THAT(m_vTaken, ElementsAre(ping(ALICE, 101))) << nRubbish << " " << nCut;
            ASSERT_EQ(m_framer.takeRubbish(), nRubbish);
        }
    }
}

TEST_F(RequestFramer, FillsItsBufferAgainAndAgainWithoutLosingARequest)
{
    CSamples bytes = zeros(3);
    std::vector<CSamples> vSent;
    for (uint32_t n = 1; n <= 1000; ++n)
    {
        vSent.push_back(ping(ALICE, 100 + n));
        bytes.insert(bytes.end(), vSent.back().begin(), vSent.back().end());
    }
    ASSERT_GT(bytes.size(), 4 * CRequestFramer::BUFFER_BYTES);
    feed(bytes);
    EXPECT_EQ(m_vTaken, vSent);
}

TEST_F(RequestFramer, DropsARestThatIsNoRequestWhenThePipeIsEmpty)
{
    feed(ping(ALICE, 101) + slice(ping(ALICE, 102), 0, 279), false);
    EXPECT_EQ(m_framer.waiting(), 279U);
    m_framer.added(0, true);
    takeOut();
    EXPECT_THAT(m_vTaken, ElementsAre(ping(ALICE, 101)));
    EXPECT_EQ(m_framer.waiting(), 0U);
    EXPECT_EQ(m_framer.takeRubbish(), 279U);
}

TEST_F(RequestFramer, KnowsNumbersThatWrapAround)
{
    m_mapLatest[ALICE] = 0xFFFFFFFFU;
    feed(noise(5) + ping(ALICE, 0) + ping(ALICE, 64) + ping(ALICE, 64 + 65));
    EXPECT_THAT(m_vTaken, ElementsAre(ping(ALICE, 0), ping(ALICE, 64)));
}

TEST_F(RequestFramer, KnowsLaterNumbersBehindTheWrap)
{
    m_mapLatest[ALICE] = 0xFFFFFFF0U;
    feed(ping(ALICE, 0xFFFFFFF1U) + ping(ALICE, 5));
    EXPECT_THAT(m_vTaken, ElementsAre(ping(ALICE, 0xFFFFFFF1U), ping(ALICE, 5)));
}

TEST_F(RequestFramer, GivesOutWhatIsOddInStepSoThatItCanBeRefused)
{
    const CSamples noCommand = bytes(command(static_cast<MICMD>(99), BOB, 101));
    const CSamples stranger = ping(STRANGER, 101);
    const CSamples otherPipes = connect(1, "/tmp/elsewhere-");
    feed(noCommand + stranger + otherPipes);
    EXPECT_THAT(m_vTaken, ElementsAre(noCommand, stranger, otherPipes));
    EXPECT_EQ(m_framer.takeRubbish(), 0U);
}

TEST_F(RequestFramer, DropsNumbersOfClientsThatAreNoneOfTheNext)
{
    feed(ping(ALICE, 100) + ping(ALICE, 50) + ping(ALICE, 165) + bytes(command(MICMD_NULL, ALICE, 102)));
    EXPECT_TRUE(m_vTaken.empty());
    EXPECT_EQ(m_framer.takeRubbish(), 1120U);
}

TEST_F(RequestFramer, PrefersAnExpectedRequestToAnOddOneAroundItsBeginning)
{
    feed(slice(ping(STRANGER, 50), 0, 279) + ping(BOB, 101));
    EXPECT_THAT(m_vTaken, ElementsAre(ping(BOB, 101)));
    EXPECT_EQ(m_framer.takeRubbish(), 279U);
}

TEST_F(RequestFramer, PrefersAnExpectedRequestToALikelyOneThatRubbishMakesOfItsBeginning)
{
    // The rubbish ends with a code and an id; the request's own code then looks like a number.
    m_mapLatest[ALICE] = 5;
    const int32_t anWords[] = {MICMD_DISCONNECT, ALICE};
    CSamples rubbish(sizeof(anWords));
    std::memcpy(rubbish.data(), anWords, sizeof(anWords));
    feed(rubbish + ping(ALICE, 6) + zeros(300));
    EXPECT_THAT(m_vTaken, ElementsAre(ping(ALICE, 6)));
    EXPECT_EQ(m_framer.takeRubbish(), 308U);
}

TEST_F(RequestFramer, FindsAgainAClientOfWhichRequestsWereLost)
{
    feed(noise(100) + ping(BOB, 101) + ping(ALICE, 103));
    feed(ping(ALICE, 103 + 64));
    EXPECT_THAT(m_vTaken, ElementsAre(ping(BOB, 101), ping(ALICE, 103), ping(ALICE, 103 + 64)));
}

TEST_F(RequestFramer, TakesNoLaterNumberWhereARequestNeedNotBegin)
{
    feed(noise(100) + ping(ALICE, 103));
    feed(ping(STRANGER, 1) + ping(ALICE, 103));
    EXPECT_THAT(m_vTaken, ElementsAre(ping(STRANGER, 1)));
}

TEST_F(RequestFramer, LooksIntoNoRequestThatIsExpected)
{
    CSamples outer = ping(ALICE, 101);
    const CSamples inner = ping(BOB, 101);
    std::copy_n(inner.begin(), 200, outer.begin() + 80);
    feed(outer + ping(BOB, 101));
    EXPECT_THAT(m_vTaken, ElementsAre(outer, ping(BOB, 101)));
}

TEST_F(RequestFramer, DropsWholeRecordsOfRubbishAndStaysInStepWithOddOnes)
{
    const CSamples stranger = ping(STRANGER, 50);
    feed(zeros(280) + stranger + zeros(560) + stranger);
    EXPECT_THAT(m_vTaken, ElementsAre(stranger, stranger));
    EXPECT_EQ(m_framer.takeRubbish(), 840U);
}

TEST_F(RequestFramer, TakesEndlessRubbishWithoutGrowing)
{
    for (unsigned n = 0; n < 200; ++n)
    {
        feed(noise(50000, n), false);
        ASSERT_LT(m_framer.waiting(), 560U);
    }
    EXPECT_TRUE(m_vTaken.empty());
    EXPECT_EQ(m_framer.takeRubbish() + m_framer.waiting(), 200U * 50000U);
}
