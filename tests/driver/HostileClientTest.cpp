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
        const size_t nSize = nWrite % 100 == 0 ? 30000 : 1 + random() % 1000;
        write(noise(nSize, nWrite).data(), nSize);
        ASSERT_TRUE(nWrite % 200 != 0 || m_pGood->isServed());
    }
}

TEST_F(HostileClient, WritesRubbishDirectlyAroundTheRequestsOfOthers)
{
    CRawClient client;
    ASSERT_TRUE(client.connect());
    for (const size_t nSize : {1U, 7U, 12U, 279U, 280U, 281U, 559U, 4096U, 70000U})
    {
        // The driver finds it all at once.
        const CSamples rubbish = noise(nSize, static_cast<unsigned>(nSize));
        m_pDriver->signal(SIGSTOP);
        write(rubbish.data(), nSize);
        const bool bSent = client.send(command(MICMD_PING, 0, 0));
        write(rubbish.data(), nSize);
        m_pDriver->signal(SIGCONT);
        ASSERT_TRUE(bSent);
        const auto rsp = client.waitResponse();
        ASSERT_TRUE(rsp) << nSize;
        EXPECT_EQ(rsp->nRespSequenceNo, client.sequence());
    }
    EXPECT_TRUE(client.request(command(MICMD_DISCONNECT, 0, 0)));
}

TEST_F(HostileClient, WritesCommandsInTheNameOfOthersByAccident)
{
    // Headers with the good client's id and numbers that it has used, anywhere in the rubbish.
    for (int n = 0; n < 10; ++n)
        ASSERT_TRUE(m_pGood->isServed());
    std::mt19937 random(2);
    for (unsigned nWrite = 0; nWrite < 5000; ++nWrite)
    {
        uint32_t anWords[70];
        for (uint32_t& nWord : anWords)
            nWord = static_cast<uint32_t>(random()) | 0x80000000U;
        for (const size_t nAt : {size_t{0}, size_t{random() % 68}})
        {
            anWords[nAt] = static_cast<uint32_t>(random() % 20);
            anWords[nAt + 1] = static_cast<uint32_t>(random() % 4);
            anWords[nAt + 2] = static_cast<uint32_t>(random() % 4);
        }
        write(anWords, sizeof(anWords) - random() % 8);
        ASSERT_TRUE(nWrite % 500 != 0 || m_pGood->isServed());
    }
}

TEST_F(HostileClient, FloodsTheRequestPipe)
{
    std::vector<std::unique_ptr<CChildProcess>> vChildren;
    for (const size_t nSize : {7U, 280U, 4096U, 20000U})
    {
        vChildren.push_back(std::make_unique<CChildProcess>([nSize](const CChildProcess::CParent& parent) {
            const CFd fdReq(::open(MI_REQUEST_PIPE, O_WRONLY));
            CSamples bytes = noise(nSize, static_cast<unsigned>(nSize));
            if (nSize == 280)
            {
                const structMICMD cmd = command(MICMD_PING, 4711, 5);
                std::memcpy(bytes.data(), &cmd, sizeof(cmd));
            }
            parent.report();
            while (::write(fdReq.get(), bytes.data(), nSize) > 0)
            {
            }
            return true;
        }));
        ASSERT_TRUE(vChildren.back()->waitReport());
    }
    for (int n = 0; n < 100; ++n)
        ASSERT_TRUE(m_pGood->isServed());
}

TEST_F(HostileClient, NamesIdsThatAreNotItsOwn)
{
    CRawClient client;
    ASSERT_TRUE(client.connect());
    for (const int nID : {1, 2, 0, -1, 12345, INT_MAX, INT_MIN}) // 1 is the good one's stream and file
    {
        EXPECT_FALSE(client.playClip(nID, nID, 0, 100));
        EXPECT_FALSE(client.playFile(nID, m_folder.path("clip.wav")));
        EXPECT_FALSE(client.recordFile(nID, m_folder.path("msg.wav"), 100));
        for (const MICMD micmd : {MICMD_CLOSEFILE, MICMD_CLOSESTREAM, MICMD_CANCEL, MICMD_RECORDGETTIME,
                                  MICMD_RECORDGETSTATUS, static_cast<MICMD>(17), MICMD_NULL, static_cast<MICMD>(-1)})
        {
            structMICMD cmd = command(micmd, 0, 0);
            cmd.stream.nStreamID = nID;
            const auto rsp = client.request(cmd);
            ASSERT_TRUE(rsp) << micmd;
            EXPECT_EQ(rsp->s_mirsp, MIRSP_STATUS);
            EXPECT_EQ(rsp->s_nResult, MISTATUS_FAILED);
        }
    }
    EXPECT_FALSE(std::filesystem::exists(m_folder.path("msg.wav")));
    EXPECT_TRUE(client.request(command(MICMD_DISCONNECT, 0, 0)));
}

TEST_F(HostileClient, SendsTextsWithoutAnEndAndNumbersOutOfRange)
{
    CRawClient client;
    ASSERT_TRUE(client.connect());
    for (int nCode = MICMD_DISCONNECT + 1; nCode <= MICMD_RECORDGETSTATUS; ++nCode)
    {
        for (const int nByte : {0x00, 0x01, 0x2F, 0x41, 0x80, 0xFF})
        {
            structMICMD cmd = command(static_cast<MICMD>(nCode), 0, 0);
            std::memset(cmd.abBody, nByte, sizeof(cmd.abBody));
            ASSERT_TRUE(client.request(cmd)) << nCode << " " << nByte;
        }
    }
    const int nFileID = client.openFile(m_folder.path("clip.wav"));
    const int nStreamID = client.openStream("call", 0xFFFFFFFF);
    EXPECT_FALSE(client.playClip(nStreamID, nFileID, 0xFFFFFFFF, 0xFFFFFFFF));
    EXPECT_TRUE(client.playClip(nStreamID, nFileID, 3199, 0xFFFFFFFF));
    EXPECT_TRUE(client.waitEvent());
    EXPECT_TRUE(client.request(command(MICMD_DISCONNECT, 0, 0)));
}

TEST_F(HostileClient, NeverReadsItsResponses)
{
    CChildProcess hostile([](const CChildProcess::CParent& parent) {
        CRawClient client;
        bool bOk = client.connect();
        for (int n = 0; n < 5000 && bOk; ++n)
            bOk = client.send(command(n % 2 == 0 ? MICMD_PING : MICMD_NULL, 0, 0));
        parent.report();
        return parent.waitAsked() && bOk;
    });
    ASSERT_TRUE(hostile.waitReport());
    EXPECT_TRUE(m_pGood->isServed());
    hostile.ask();
    EXPECT_TRUE(hostile.waitEnd());
}

TEST_F(HostileClient, NeverReadsItsEvents)
{
    CChildProcess hostile([this](const CChildProcess::CParent& parent) {
        CRawClient client;
        bool bOk = client.connect();
        const int nStreamID = client.openStream("call", 1);
        const int nFileID = client.openFile(m_folder.path("clip.wav"));
        int nAccepted = 0;
        for (int n = 0; n < 10000 && bOk; ++n)
        {
            // Refused while the one before it plays.
            structMICMD cmd = command(MICMD_PLAYCLIP, 0, 0);
            cmd.playClip = {nStreamID, nFileID, 0, 0, 0};
            const auto rsp = client.request(cmd);
            bOk = rsp.has_value();
            nAccepted += bOk && rsp->s_nResult == MISTATUS_OK ? 1 : 0;
        }
        parent.report();
        return parent.waitAsked() && bOk && nAccepted > 100;
    });
    ASSERT_TRUE(hostile.waitReport());
    EXPECT_TRUE(m_pGood->isServed());
    hostile.ask();
    EXPECT_TRUE(hostile.waitEnd());
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
            bool bOk = client.connect();
            const int nFileID = state.m_bFile ? client.openFile(m_folder.path("clip.wav")) : 1;
            const int nStreamID = state.m_bStream ? client.openStream("silent", 1) : 1;
            bOk = bOk && nFileID > 0 && nStreamID > 0;
            bOk = bOk && (!state.m_bRecord || client.recordFile(nStreamID, m_folder.path("msg.wav"), 4000000000U));
            bOk = bOk && (!state.m_bPlay || client.playClip(nStreamID, nFileID, 0, 0xFFFFFFFF));
            if (bOk)
                parent.report();
            return bOk && parent.waitAsked();
        });
        ASSERT_TRUE(hostile.waitReport()) << state.m_pName;
        hostile.kill();
        ASSERT_TRUE(waitUntilAllLeft()) << state.m_pName;
    }
    CRawClient next;
    ASSERT_TRUE(next.connect());
    EXPECT_GT(next.openStream("silent", 1), 0);
    EXPECT_TRUE(next.request(command(MICMD_DISCONNECT, 0, 0)));
}
