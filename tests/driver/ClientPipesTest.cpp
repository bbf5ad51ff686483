// A client's FIFOs: which names and files are accepted, full pipes, readers that vanish.
#include "ClientPipes.h"
#include "DriverTestSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/wait.h>

using testing::HasSubstr;

namespace
{
const std::string RSP = MI_RESPONSE_PIPE_PREFIX;
const std::string EVT = MI_EVENT_PIPE_PREFIX;

structMICMD::ConnectBody Body(const std::string& strRspPipe, const std::string& strEvtPipe)
{
    structMICMD::ConnectBody body;
    SetText(body.szRspPipe, strRspPipe);
    SetText(body.szEvtPipe, strEvtPipe);
    return body;
}

// FIFOs under the names of this process, and an epoll to watch them.
class ClientPipes : public testing::Test
{
protected:
    ClientPipes()
    {
        ::unlink(m_strRsp.c_str());
        ::unlink(m_strEvt.c_str());
    }
    ~ClientPipes() override
    {
        ::unlink(m_strRsp.c_str());
        ::unlink(m_strEvt.c_str());
    }

    void MakeFifos()
    {
        ASSERT_EQ(::mkfifo(m_strRsp.c_str(), 0600), 0);
        ASSERT_EQ(::mkfifo(m_strEvt.c_str(), 0600), 0);
    }
    void OpenReaders()
    {
        m_fdRsp = CFd(::open(m_strRsp.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        m_fdEvt = CFd(::open(m_strEvt.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        ASSERT_TRUE(m_fdRsp.IsOpen() && m_fdEvt.IsOpen());
    }
    std::unique_ptr<CClientPort> Open() { return m_opener.Open(Body(m_strRsp, m_strEvt), m_strError); }
    epoll_event WaitEvent(int nTimeoutMs)
    {
        epoll_event event = {};
        ::epoll_wait(m_fdEpoll.Get(), &event, 1, nTimeoutMs);
        return event;
    }

    const std::string m_strRsp = RSP + std::to_string(::getpid());
    const std::string m_strEvt = EVT + std::to_string(::getpid());
    CFd m_fdRsp;
    CFd m_fdEvt;
    CFd m_fdEpoll{::epoll_create1(EPOLL_CLOEXEC)};
    CClientPipesOpener m_opener{m_fdEpoll.Get()};
    std::string m_strError;
};
} // namespace

TEST(ClientPipeNames, AreThePrefixesWithOneProcessID)
{
    CClientPipeNames names;
    std::string strError;
    EXPECT_TRUE(ParseClientPipeNames(Body(RSP + "1234567", EVT + "1234567"), names, strError)) << strError;
    EXPECT_EQ(names.m_nProcessID, 1234567);
    EXPECT_EQ(names.m_strRspPipe, RSP + "1234567");
    EXPECT_EQ(names.m_strEvtPipe, EVT + "1234567");
}

TEST(ClientPipeNames, OfAnyOtherFormAreRefused)
{
    const std::string vSuffixes[] = {"",   "0",    "-5",  "+5", " 5",          "5 ",     "05",
                                     "5x", "0x10", "5/5", "..", "99999999999", "/../foo"};
    CClientPipeNames names;
    std::string strError;
    for (const std::string& strSuffix : vSuffixes)
    {
        EXPECT_FALSE(ParseClientPipeNames(Body(RSP + strSuffix, EVT + strSuffix), names, strError)) << strSuffix;
        EXPECT_FALSE(ParseClientPipeNames(Body(RSP + "5", EVT + strSuffix), names, strError)) << strSuffix;
    }
    EXPECT_FALSE(ParseClientPipeNames(Body("/tmp/other-5", EVT + "5"), names, strError));
    EXPECT_FALSE(ParseClientPipeNames(Body("", ""), names, strError));
    EXPECT_FALSE(ParseClientPipeNames(Body(EVT + "5", RSP + "5"), names, strError));
    EXPECT_FALSE(ParseClientPipeNames(Body(RSP + "5", EVT + "6"), names, strError));
    EXPECT_THAT(strError, HasSubstr("two processes"));
}

TEST(ClientPipeNames, WithoutAnEndAreRefused)
{
    CClientPipeNames names;
    std::string strError;
    structMICMD::ConnectBody body = Body(RSP + "5", EVT + "5");
    std::fill(std::begin(body.szEvtPipe) + EVT.size(), std::end(body.szEvtPipe), '5');
    EXPECT_FALSE(ParseClientPipeNames(body, names, strError));
    EXPECT_THAT(strError, HasSubstr("no end"));
}

TEST_F(ClientPipes, CarryResponsesAndEvents)
{
    MakeFifos();
    OpenReaders();
    const auto pPort = Open();
    ASSERT_TRUE(pPort) << m_strError;
    structMIRSP rsp = {};
    rsp.nRespSequenceNo = 42;
    EXPECT_EQ(pPort->SendResponse(rsp), ESend::Sent);
    EXPECT_EQ(pPort->SendEvent({MIEVT_DONE, 1, 2, 3}), ESend::Sent);
    structMIRSP rspRead = {};
    EXPECT_EQ(::read(m_fdRsp.Get(), &rspRead, sizeof(rspRead)), 48);
    EXPECT_EQ(rspRead.nRespSequenceNo, 42U);
    structMIEVT evtRead = {};
    EXPECT_EQ(::read(m_fdEvt.Get(), &evtRead, sizeof(evtRead)), 16);
    EXPECT_EQ(evtRead, (structMIEVT{MIEVT_DONE, 1, 2, 3}));
}

TEST_F(ClientPipes, MustExist)
{
    EXPECT_FALSE(Open());
    EXPECT_THAT(m_strError, HasSubstr("No such file"));
    EXPECT_NE(::access(m_strRsp.c_str(), F_OK), 0);
}

TEST_F(ClientPipes, MustHaveAReader)
{
    MakeFifos();
    EXPECT_FALSE(Open());
    EXPECT_THAT(m_strError, HasSubstr("cannot be opened"));
}

TEST_F(ClientPipes, MustNotBeLinks)
{
    const CTempFolder folder;
    ASSERT_EQ(::mkfifo(folder.Path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::symlink(folder.Path("fifo").c_str(), m_strRsp.c_str()), 0);
    ASSERT_EQ(::mkfifo(m_strEvt.c_str(), 0600), 0);
    OpenReaders();
    EXPECT_FALSE(Open());
    EXPECT_THAT(m_strError, HasSubstr(m_strRsp + " cannot be opened"));
}

TEST_F(ClientPipes, MustNotBeRegularFilesAndThoseStayAsTheyAre)
{
    WriteBytes(m_strRsp, {1, 2, 3});
    ASSERT_EQ(::mkfifo(m_strEvt.c_str(), 0600), 0);
    OpenReaders();
    EXPECT_FALSE(Open());
    EXPECT_THAT(m_strError, HasSubstr("is not a FIFO"));
    EXPECT_EQ(ReadBytes(m_strRsp), (CSamples{1, 2, 3}));
}

TEST_F(ClientPipes, ThatAreFullLoseNoEventAndReportRoom)
{
    MakeFifos();
    OpenReaders();
    const CLogCapture log;
    CClientRegistry registry;
    CClient* pClient = registry.Add(Open());
    ASSERT_NE(pClient, nullptr);
    const int nConnectID = pClient->ConnectID();
    constexpr std::uint32_t EVENTS = 20000; // more than a pipe holds
    std::vector<structMIEVT> vEvents;
    for (std::uint32_t n = 0; n < EVENTS; ++n)
    {
        vEvents.push_back({MIEVT_DONE, 1, n, 0});
    }
    pClient->QueueEvents(vEvents);
    registry.Flush(nConnectID);
    EXPECT_GT(pClient->WaitingEvents(), 0U);
    EXPECT_EQ(WaitEvent(0).data.u64, 0U);

    std::uint32_t nNext = 0;
    while (nNext < EVENTS)
    {
        structMIEVT evt = {};
        while (::read(m_fdEvt.Get(), &evt, sizeof(evt)) == static_cast<ssize_t>(sizeof(evt)))
        {
            ASSERT_EQ(evt.nSequenceID, nNext);
            ++nNext;
        }
        if (nNext < EVENTS)
        {
            const epoll_event event = WaitEvent(5000);
            ASSERT_EQ(event.data.u64, static_cast<std::uint64_t>(nConnectID));
            ASSERT_EQ(event.events, static_cast<std::uint32_t>(EPOLLOUT));
            registry.Flush(nConnectID);
        }
    }
    EXPECT_EQ(pClient->WaitingEvents(), 0U);
    EXPECT_EQ(WaitEvent(0).data.u64, 0U);
}

TEST_F(ClientPipes, FullOfResponsesSayFull)
{
    MakeFifos();
    OpenReaders();
    const auto pPort = Open();
    ASSERT_TRUE(pPort) << m_strError;
    ESend eSend = ESend::Sent;
    for (int n = 0; n < 100000 && eSend == ESend::Sent; ++n)
    {
        eSend = pPort->SendResponse({});
    }
    EXPECT_EQ(eSend, ESend::Full);
}

TEST_F(ClientPipes, ReportThatTheirReaderHasVanished)
{
    ::signal(SIGPIPE, SIG_IGN);
    MakeFifos();
    OpenReaders();
    const auto pPort = Open();
    ASSERT_TRUE(pPort && pPort->Watch(33));
    EXPECT_EQ(WaitEvent(0).data.u64, 0U);
    m_fdEvt.Close();
    const epoll_event event = WaitEvent(5000);
    EXPECT_EQ(event.data.u64, 33U);
    EXPECT_NE(event.events & EPOLLERR, 0U);
    EXPECT_EQ(pPort->SendEvent({}), ESend::Gone);
    m_fdRsp.Close();
    EXPECT_EQ(pPort->SendResponse({}), ESend::Gone);
}

TEST_F(ClientPipes, KnowWhenTheirProcessHasEnded)
{
    int anGate[2];
    ASSERT_EQ(::pipe(anGate), 0);
    const pid_t nChild = ::fork();
    if (nChild == 0)
    {
        char c = 0;
        ::close(anGate[1]);
        ::_exit(::read(anGate[0], &c, 1) == 0 ? 0 : 1);
    }
    ::close(anGate[0]);
    const CClientPipes pipes(nChild, CFd(), CFd(), m_fdEpoll.Get());
    EXPECT_FALSE(pipes.IsProcessGone());
    ::close(anGate[1]);
    EXPECT_EQ(::waitpid(nChild, nullptr, 0), nChild);
    EXPECT_TRUE(pipes.IsProcessGone());
    // A process that was never to be seen lives elsewhere; nothing can be said of it.
    EXPECT_FALSE(CClientPipes(nChild, CFd(), CFd(), m_fdEpoll.Get()).IsProcessGone());
}
