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

CSamples Bytes(const structMICMD& cmd)
{
    const auto* pBytes = reinterpret_cast<const std::uint8_t*>(&cmd);
    return {pBytes, pBytes + sizeof(cmd)};
}

CSamples Zeros(std::size_t nCount)
{
    return CSamples(nCount);
}

// Two clients whose latest request was number 100, and the requests that come out of the framer.
class RequestFramer : public testing::Test
{
protected:
    static CSamples Ping(int nConnectID, std::uint32_t nSequenceNo)
    {
        return Bytes(Command(MICMD_PING, nConnectID, nSequenceNo));
    }
    static CSamples Connect(std::uint32_t nSequenceNo, const std::string& strRspPrefix = MI_RESPONSE_PIPE_PREFIX)
    {
        structMICMD cmd = Command(MICMD_CONNECT, -1, nSequenceNo);
        SetText(cmd.connect.szRspPipe, strRspPrefix + "5");
        SetText(cmd.connect.szEvtPipe, MI_EVENT_PIPE_PREFIX "5");
        return Bytes(cmd);
    }

    // Hands over bytes, as many at once as fit, and takes out what there is. bAll: the pipe is empty then.
    void Feed(const CSamples& bytes, bool bAll = true)
    {
        std::size_t nDone = 0;
        do
        {
            const std::span<unsigned char> room = m_framer.Room();
            ASSERT_GE(room.size(), sizeof(structMICMD));
            const std::size_t nCount = std::min(room.size(), bytes.size() - nDone);
            std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(nDone), nCount, room.begin());
            nDone += nCount;
            m_framer.Added(nCount, bAll && nDone == bytes.size());
            TakeOut();
        } while (nDone < bytes.size());
    }
    void TakeOut()
    {
        structMICMD cmd;
        while (m_framer.Next(cmd))
        {
            m_vTaken.push_back(Bytes(cmd));
            const auto it = m_mapLatest.find(cmd.nConnectID);
            if (it != m_mapLatest.end() && cmd.s_micmd != MICMD_CONNECT)
            {
                it->second = cmd.nSequenceNo;
            }
        }
    }

    std::map<int, std::uint32_t> m_mapLatest = {{ALICE, 100}, {BOB, 100}};
    std::vector<CSamples> m_vTaken;
    CRequestFramer m_framer{[this](int nConnectID) -> std::optional<std::uint32_t> {
        const auto it = m_mapLatest.find(nConnectID);
        return it != m_mapLatest.end() ? std::optional(it->second) : std::nullopt;
    }};
};
} // namespace

TEST_F(RequestFramer, GivesOutRequestsInOrderByteByByte)
{
    Feed(Ping(ALICE, 101) + Ping(BOB, 101) + Connect(7));
    EXPECT_THAT(m_vTaken, ElementsAre(Ping(ALICE, 101), Ping(BOB, 101), Connect(7)));
    EXPECT_EQ(m_framer.TakeRubbish(), 0U);
    EXPECT_EQ(m_framer.Waiting(), 0U);
}

TEST_F(RequestFramer, FindsARequestBehindRubbishOfAnyLength)
{
    std::uint32_t nSequenceNo = 100;
    for (std::size_t nSize = 0; nSize < 900; ++nSize)
    {
        ++nSequenceNo;
        m_vTaken.clear();
        Feed(Noise(nSize, static_cast<unsigned>(nSize)) + Ping(ALICE, nSequenceNo) + Ping(BOB, nSequenceNo));
        ASSERT_THAT(m_vTaken, ElementsAre(Ping(ALICE, nSequenceNo), Ping(BOB, nSequenceNo))) << nSize;
        ASSERT_EQ(m_framer.TakeRubbish(), nSize);
    }
}

TEST_F(RequestFramer, FindsAConnectBehindRubbish)
{
    Feed(Noise(7) + Connect(1) + Noise(281) + Connect(2));
    EXPECT_THAT(m_vTaken, ElementsAre(Connect(1), Connect(2)));
}

TEST_F(RequestFramer, FindsEachOfManyRequestsBetweenThousandsOfPiecesOfRubbish)
{
    CSamples bytes;
    std::vector<CSamples> vSent;
    std::size_t nRubbish = 0;
    for (std::uint32_t n = 1; n <= 3000; ++n)
    {
        const CSamples rubbish = Noise(n * 7919U % 1000U, n);
        nRubbish += rubbish.size();
        bytes = bytes + rubbish;
        vSent.push_back(Ping(n % 2 == 0 ? ALICE : BOB, 100 + (n + 1) / 2));
        bytes.insert(bytes.end(), vSent.back().begin(), vSent.back().end());
        if (n % 500 == 0)
        {
            Feed(bytes);
            bytes.clear();
        }
    }
    EXPECT_EQ(m_vTaken, vSent);
    EXPECT_EQ(m_framer.TakeRubbish(), nRubbish);
}

TEST_F(RequestFramer, FindsRequestsBehindRubbishFullOfClientIdsAndCodes)
{
    for (const std::int32_t nWord : {0, 1, 2, 13, 16})
    {
        for (const std::size_t nWords : {1U, 20U, 69U, 70U, 71U, 200U})
        {
            m_mapLatest[ALICE] = 100;
            m_vTaken.clear();
            CSamples rubbish(nWords * 4);
            for (std::size_t n = 0; n < rubbish.size(); n += 4)
            {
                std::memcpy(rubbish.data() + n, &nWord, 4);
            }
            Feed(rubbish + Ping(ALICE, 101) + Ping(ALICE, 102));
            ASSERT_GE(m_vTaken.size(), 2U);
            EXPECT_EQ(m_vTaken[m_vTaken.size() - 2], Ping(ALICE, 101)) << nWord << " " << nWords;
            EXPECT_EQ(m_vTaken.back(), Ping(ALICE, 102));
        }
    }
}

TEST_F(RequestFramer, FindsRequestsBetweenThePiecesOfALongWrite)
{
    const CSamples longWrite = Noise(10000);
    Feed(Slice(longWrite, 0, 4096) + Ping(ALICE, 101) + Slice(longWrite, 4096, 8192) + Ping(BOB, 101) +
         Slice(longWrite, 8192, 10000) + Ping(ALICE, 102));
    EXPECT_THAT(m_vTaken, ElementsAre(Ping(ALICE, 101), Ping(BOB, 101), Ping(ALICE, 102)));
}

TEST_F(RequestFramer, KeepsARequestThatAReadHasCut)
{
    for (std::size_t nCut = 1; nCut < sizeof(structMICMD); ++nCut)
    {
        m_mapLatest[ALICE] = 100;
        m_vTaken.clear();
        const CSamples bytes = Ping(ALICE, 101) + Ping(ALICE, 102);
        Feed(Slice(bytes, 0, 280 + nCut), false);
        ASSERT_THAT(m_vTaken, ElementsAre(Ping(ALICE, 101)));
        ASSERT_EQ(m_framer.Waiting(), nCut);
        Feed(Slice(bytes, 280 + nCut, 560));
        ASSERT_THAT(m_vTaken, ElementsAre(Ping(ALICE, 101), Ping(ALICE, 102))) << nCut;
    }
    EXPECT_EQ(m_framer.TakeRubbish(), 0U);
}

TEST_F(RequestFramer, KeepsARequestThatAReadHasCutBehindRubbish)
{
    for (const std::size_t nRubbish : {1U, 12U, 279U, 280U, 281U, 600U})
    {
        for (std::size_t nCut = 0; nCut <= sizeof(structMICMD); ++nCut)
        {
            m_mapLatest[ALICE] = 100;
            m_vTaken.clear();
            const CSamples bytes = Noise(nRubbish) + Ping(ALICE, 101);
            Feed(Slice(bytes, 0, nRubbish + nCut), false);
            Feed(Slice(bytes, nRubbish + nCut, bytes.size()));
            ASSERT_THAT(m_vTaken, ElementsAre(Ping(ALICE, 101))) << nRubbish << " " << nCut;
            ASSERT_EQ(m_framer.TakeRubbish(), nRubbish);
        }
    }
}

TEST_F(RequestFramer, FillsItsBufferAgainAndAgainWithoutLosingARequest)
{
    CSamples bytes = Zeros(3);
    std::vector<CSamples> vSent;
    for (std::uint32_t n = 1; n <= 1000; ++n)
    {
        vSent.push_back(Ping(ALICE, 100 + n));
        bytes.insert(bytes.end(), vSent.back().begin(), vSent.back().end());
    }
    ASSERT_GT(bytes.size(), 4 * CRequestFramer::BUFFER_BYTES);
    Feed(bytes);
    EXPECT_EQ(m_vTaken, vSent);
}

TEST_F(RequestFramer, DropsARestThatIsNoRequestWhenThePipeIsEmpty)
{
    Feed(Ping(ALICE, 101) + Slice(Ping(ALICE, 102), 0, 279), false);
    EXPECT_EQ(m_framer.Waiting(), 279U);
    m_framer.Added(0, true);
    TakeOut();
    EXPECT_THAT(m_vTaken, ElementsAre(Ping(ALICE, 101)));
    EXPECT_EQ(m_framer.Waiting(), 0U);
    EXPECT_EQ(m_framer.TakeRubbish(), 279U);
}

TEST_F(RequestFramer, KnowsNumbersThatWrapAround)
{
    m_mapLatest[ALICE] = 0xFFFFFFFFU;
    Feed(Noise(5) + Ping(ALICE, 0) + Ping(ALICE, 64) + Ping(ALICE, 64 + 65));
    EXPECT_THAT(m_vTaken, ElementsAre(Ping(ALICE, 0), Ping(ALICE, 64)));
}

TEST_F(RequestFramer, GivesOutWhatIsOddInStepSoThatItCanBeRefused)
{
    const CSamples noCommand = Bytes(Command(static_cast<MICMD>(99), BOB, 101));
    const CSamples stranger = Ping(STRANGER, 101);
    const CSamples otherPipes = Connect(1, "/tmp/elsewhere-");
    Feed(noCommand + stranger + otherPipes);
    EXPECT_THAT(m_vTaken, ElementsAre(noCommand, stranger, otherPipes));
    EXPECT_EQ(m_framer.TakeRubbish(), 0U);
}

TEST_F(RequestFramer, DropsNumbersOfClientsThatAreNoneOfTheNext)
{
    Feed(Ping(ALICE, 100) + Ping(ALICE, 50) + Ping(ALICE, 165) + Bytes(Command(MICMD_NULL, ALICE, 102)));
    EXPECT_TRUE(m_vTaken.empty());
    EXPECT_EQ(m_framer.TakeRubbish(), 1120U);
}

TEST_F(RequestFramer, PrefersAnExpectedRequestToAnOddOneAroundItsBeginning)
{
    Feed(Slice(Ping(STRANGER, 50), 0, 279) + Ping(BOB, 101));
    EXPECT_THAT(m_vTaken, ElementsAre(Ping(BOB, 101)));
    EXPECT_EQ(m_framer.TakeRubbish(), 279U);
}

TEST_F(RequestFramer, PrefersAnExpectedRequestToALikelyOneThatRubbishMakesOfItsBeginning)
{
    // The rubbish ends with a code and an id; the request's own code then looks like a number.
    m_mapLatest[ALICE] = 5;
    const std::int32_t anWords[] = {MICMD_DISCONNECT, ALICE};
    CSamples rubbish(sizeof(anWords));
    std::memcpy(rubbish.data(), anWords, sizeof(anWords));
    Feed(rubbish + Ping(ALICE, 6) + Zeros(300));
    EXPECT_THAT(m_vTaken, ElementsAre(Ping(ALICE, 6)));
    EXPECT_EQ(m_framer.TakeRubbish(), 308U);
}

TEST_F(RequestFramer, FindsAgainAClientOfWhichRequestsWereLost)
{
    Feed(Noise(100) + Ping(BOB, 101) + Ping(ALICE, 103));
    Feed(Ping(ALICE, 103 + 64));
    EXPECT_THAT(m_vTaken, ElementsAre(Ping(BOB, 101), Ping(ALICE, 103), Ping(ALICE, 103 + 64)));
}

TEST_F(RequestFramer, TakesNoLaterNumberWhereARequestNeedNotBegin)
{
    Feed(Noise(100) + Ping(ALICE, 103));
    Feed(Ping(STRANGER, 1) + Ping(ALICE, 103));
    EXPECT_THAT(m_vTaken, ElementsAre(Ping(STRANGER, 1)));
}

TEST_F(RequestFramer, LooksIntoNoRequestThatIsExpected)
{
    CSamples outer = Ping(ALICE, 101);
    const CSamples inner = Ping(BOB, 101);
    std::copy_n(inner.begin(), 200, outer.begin() + 80);
    Feed(outer + Ping(BOB, 101));
    EXPECT_THAT(m_vTaken, ElementsAre(outer, Ping(BOB, 101)));
}

TEST_F(RequestFramer, DropsWholeRecordsOfRubbishAndStaysInStepWithOddOnes)
{
    const CSamples stranger = Ping(STRANGER, 50);
    Feed(Zeros(280) + stranger + Zeros(560) + stranger);
    EXPECT_THAT(m_vTaken, ElementsAre(stranger, stranger));
    EXPECT_EQ(m_framer.TakeRubbish(), 840U);
}

TEST_F(RequestFramer, TakesEndlessRubbishWithoutGrowing)
{
    for (unsigned n = 0; n < 200; ++n)
    {
        Feed(Noise(50000, n), false);
        ASSERT_LT(m_framer.Waiting(), 560U);
    }
    EXPECT_TRUE(m_vTaken.empty());
    EXPECT_EQ(m_framer.TakeRubbish() + m_framer.Waiting(), 200U * 50000U);
}
