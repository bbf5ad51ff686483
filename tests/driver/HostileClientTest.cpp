// The driver program among clients that write rubbish, name what is not theirs, do not read, or die.
#include "HostileFixture.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <random>

using HostileClient = CHostileFixture;

TEST_F(HostileClient, WritesRandomBytesOfRandomLengths)
{
    std::mt19937 random(1);
    for (unsigned nWrite = 0; nWrite < 2000; ++nWrite)
    {
        const std::size_t nSize = nWrite % 100 == 0 ? 30000 : 1 + random() % 1000;
        Write(Noise(nSize, nWrite).data(), nSize);
        ASSERT_TRUE(nWrite % 200 != 0 || m_pGood->IsServed());
    }
}

TEST_F(HostileClient, WritesRubbishDirectlyAroundTheRequestsOfOthers)
{
    CRawClient client;
    ASSERT_TRUE(client.Connect());
    for (const std::size_t nSize : {1U, 7U, 12U, 279U, 280U, 281U, 559U, 4096U, 70000U})
    {
        // The driver finds it all at once.
        const CSamples rubbish = Noise(nSize, static_cast<unsigned>(nSize));
        m_pDriver->Signal(SIGSTOP);
        Write(rubbish.data(), nSize);
        const bool bSent = client.Send(Command(MICMD_PING, 0, 0));
        Write(rubbish.data(), nSize);
        m_pDriver->Signal(SIGCONT);
        ASSERT_TRUE(bSent);
        const auto rsp = client.WaitResponse();
        ASSERT_TRUE(rsp) << nSize;
        EXPECT_EQ(rsp->nRespSequenceNo, client.Sequence());
    }
    EXPECT_TRUE(client.Request(Command(MICMD_DISCONNECT, 0, 0)));
}

TEST_F(HostileClient, WritesCommandsInTheNameOfOthersByAccident)
{
    // Headers with the good client's id and numbers that it has used, anywhere in the rubbish.
    for (int n = 0; n < 10; ++n)
    {
        ASSERT_TRUE(m_pGood->IsServed());
    }
    std::mt19937 random(2);
    for (unsigned nWrite = 0; nWrite < 5000; ++nWrite)
    {
        std::uint32_t anWords[70];
        for (std::uint32_t& nWord : anWords)
        {
            nWord = static_cast<std::uint32_t>(random()) | 0x80000000U;
        }
        for (const std::size_t nAt : {std::size_t{0}, std::size_t{random() % 68}})
        {
            anWords[nAt] = static_cast<std::uint32_t>(random() % 20);
            anWords[nAt + 1] = static_cast<std::uint32_t>(random() % 4);
            anWords[nAt + 2] = static_cast<std::uint32_t>(random() % 4);
        }
        Write(anWords, sizeof(anWords) - random() % 8);
        ASSERT_TRUE(nWrite % 500 != 0 || m_pGood->IsServed());
    }
}

TEST_F(HostileClient, FloodsTheRequestPipe)
{
    std::vector<std::unique_ptr<CChildProcess>> vChildren;
    for (const std::size_t nSize : {7U, 280U, 4096U, 20000U})
    {
        vChildren.push_back(std::make_unique<CChildProcess>([nSize](const CChildProcess::CParent& parent) {
            const CFd fdReq(::open(MI_REQUEST_PIPE, O_WRONLY));
            CSamples bytes = Noise(nSize, static_cast<unsigned>(nSize));
            if (nSize == 280)
            {
                const structMICMD cmd = Command(MICMD_PING, 4711, 5);
                std::memcpy(bytes.data(), &cmd, sizeof(cmd));
            }
            parent.Report();
            while (::write(fdReq.Get(), bytes.data(), nSize) > 0)
            {
            }
            return true;
        }));
        ASSERT_TRUE(vChildren.back()->WaitReport());
    }
    for (int n = 0; n < 100; ++n)
    {
        ASSERT_TRUE(m_pGood->IsServed());
    }
}

TEST_F(HostileClient, NamesIdsThatAreNotItsOwn)
{
    CRawClient client;
    ASSERT_TRUE(client.Connect());
    for (const int nID : {1, 2, 0, -1, 12345, INT_MAX, INT_MIN}) // 1 is the good one's stream and file
    {
        EXPECT_FALSE(client.PlayClip(nID, nID, 0, 100));
        EXPECT_FALSE(client.PlayFile(nID, m_folder.Path("clip.wav")));
        EXPECT_FALSE(client.RecordFile(nID, m_folder.Path("msg.wav"), 100));
        for (const MICMD micmd : {MICMD_CLOSEFILE, MICMD_CLOSESTREAM, MICMD_CANCEL, MICMD_RECORDGETTIME,
                                  MICMD_RECORDGETSTATUS, static_cast<MICMD>(17), MICMD_NULL, static_cast<MICMD>(-1)})
        {
            structMICMD cmd = Command(micmd, 0, 0);
            cmd.stream.nStreamID = nID;
            const auto rsp = client.Request(cmd);
            ASSERT_TRUE(rsp) << micmd;
            EXPECT_EQ(rsp->s_mirsp, MIRSP_STATUS);
            EXPECT_EQ(rsp->s_nResult, MISTATUS_FAILED);
        }
    }
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("msg.wav")));
    EXPECT_TRUE(client.Request(Command(MICMD_DISCONNECT, 0, 0)));
}

TEST_F(HostileClient, SendsTextsWithoutAnEndAndNumbersOutOfRange)
{
    CRawClient client;
    ASSERT_TRUE(client.Connect());
    for (int nCode = MICMD_DISCONNECT + 1; nCode <= MICMD_RECORDGETSTATUS; ++nCode)
    {
        for (const int nByte : {0x00, 0x01, 0x2F, 0x41, 0x80, 0xFF})
        {
            structMICMD cmd = Command(static_cast<MICMD>(nCode), 0, 0);
            std::memset(cmd.abBody, nByte, sizeof(cmd.abBody));
            ASSERT_TRUE(client.Request(cmd)) << nCode << " " << nByte;
        }
    }
    const int nFileID = client.OpenFile(m_folder.Path("clip.wav"));
    const int nStreamID = client.OpenStream("call", 0xFFFFFFFF);
    EXPECT_FALSE(client.PlayClip(nStreamID, nFileID, 0xFFFFFFFF, 0xFFFFFFFF));
    EXPECT_TRUE(client.PlayClip(nStreamID, nFileID, 3199, 0xFFFFFFFF));
    EXPECT_TRUE(client.WaitEvent());
    EXPECT_TRUE(client.Request(Command(MICMD_DISCONNECT, 0, 0)));
}

TEST_F(HostileClient, NeverReadsItsResponses)
{
    CChildProcess hostile([](const CChildProcess::CParent& parent) {
        CRawClient client;
        bool bOk = client.Connect();
        for (int n = 0; n < 5000 && bOk; ++n)
        {
            bOk = client.Send(Command(n % 2 == 0 ? MICMD_PING : MICMD_NULL, 0, 0));
        }
        parent.Report();
        return parent.WaitAsked() && bOk;
    });
    ASSERT_TRUE(hostile.WaitReport());
    EXPECT_TRUE(m_pGood->IsServed());
    hostile.Ask();
    EXPECT_TRUE(hostile.WaitEnd());
}

TEST_F(HostileClient, NeverReadsItsEvents)
{
    CChildProcess hostile([this](const CChildProcess::CParent& parent) {
        CRawClient client;
        bool bOk = client.Connect();
        const int nStreamID = client.OpenStream("call", 1);
        const int nFileID = client.OpenFile(m_folder.Path("clip.wav"));
        int nAccepted = 0;
        for (int n = 0; n < 10000 && bOk; ++n)
        {
            // Refused while the one before it plays.
            structMICMD cmd = Command(MICMD_PLAYCLIP, 0, 0);
            cmd.playClip = {nStreamID, nFileID, 0, 0, 0};
            const auto rsp = client.Request(cmd);
            bOk = rsp.has_value();
            nAccepted += bOk && rsp->s_nResult == MISTATUS_OK ? 1 : 0;
        }
        parent.Report();
        return parent.WaitAsked() && bOk && nAccepted > 100;
    });
    ASSERT_TRUE(hostile.WaitReport());
    EXPECT_TRUE(m_pGood->IsServed());
    hostile.Ask();
    EXPECT_TRUE(hostile.WaitEnd());
}

TEST_F(HostileClient, DiesInAnyState)
{
    struct CState
    {
        const char* m_pName;
        bool m_bFile, m_bStream, m_bPlay, m_bRecord;
    };
    constexpr CState STATES[] = {{"connected", false, false, false, false},  {"file open", true, false, false, false},
                                 {"stream open", false, true, false, false}, {"playing", true, true, true, false},
                                 {"recording", false, true, false, true},    {"both", true, true, true, true}};
    for (const CState& state : STATES)
    {
        CChildProcess hostile([&](const CChildProcess::CParent& parent) {
            CRawClient client;
            bool bOk = client.Connect();
            const int nFileID = state.m_bFile ? client.OpenFile(m_folder.Path("clip.wav")) : 1;
            const int nStreamID = state.m_bStream ? client.OpenStream("silent", 1) : 1;
            bOk = bOk && nFileID > 0 && nStreamID > 0;
            bOk = bOk && (!state.m_bRecord || client.RecordFile(nStreamID, m_folder.Path("msg.wav"), 4000000000U));
            bOk = bOk && (!state.m_bPlay || client.PlayClip(nStreamID, nFileID, 0, 0xFFFFFFFF));
            if (bOk)
            {
                parent.Report();
            }
            return bOk && parent.WaitAsked();
        });
        ASSERT_TRUE(hostile.WaitReport()) << state.m_pName;
        hostile.Kill();
        ASSERT_TRUE(WaitUntilAllLeft()) << state.m_pName;
    }
    CRawClient next;
    ASSERT_TRUE(next.Connect());
    EXPECT_GT(next.OpenStream("silent", 1), 0);
    EXPECT_TRUE(next.Request(Command(MICMD_DISCONNECT, 0, 0)));
}
