// A client's FIFOs: which names and files are accepted, full pipes, readers that vanish.
#include "ClientPipes.h"

#include "Child.h"
#include "DriverTestSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <csignal>

using testing::HasSubstr;

namespace
{
const std::string RSP = MI_RESPONSE_PIPE_PREFIX;
const std::string EVT = MI_EVENT_PIPE_PREFIX;

structMICMD::ConnectBody body(const std::string& strRspPipe, const std::string& strEvtPipe)
{
    structMICMD::ConnectBody body;
    setText(body.szRspPipe, strRspPipe);
    setText(body.szEvtPipe, strEvtPipe);
    return body;
}

// FIFOs under the names of this process, and a poller to watch them.
class ClientPipes : public testing::Test
{
protected:
    ClientPipes()
    {
        ::unlink(m_strRsp.c_str());
        ::unlink(m_strEvt.c_str());
        EXPECT_TRUE(m_poller.create(m_strError)) << m_strError;
        ::signal(SIGPIPE, SIG_IGN);
    }
    ~ClientPipes() override
    {
        ::unlink(m_strRsp.c_str());
        ::unlink(m_strEvt.c_str());
    }

    void makeFifos()
    {
        ASSERT_EQ(::mkfifo(m_strRsp.c_str(), 0600), 0);
        ASSERT_EQ(::mkfifo(m_strEvt.c_str(), 0600), 0);
    }
    void openReaders()
    {
        m_fdRsp = CFd(::open(m_strRsp.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        m_fdEvt = CFd(::open(m_strEvt.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        ASSERT_TRUE(m_fdRsp.isOpen() && m_fdEvt.isOpen());
    }
    std::unique_ptr<CClientPort> open() { return m_opener.open(body(m_strRsp, m_strEvt), m_strError); }
    // A watched port of pipes that are there and read.
    std::unique_ptr<CClientPort> mustOpen()
    {
        makeFifos();
        openReaders();
        auto pPort = open();
        EXPECT_TRUE(pPort) << m_strError;
        EXPECT_TRUE(pPort && pPort->watch([this] { ++m_nBroken; }, [this] { ++m_nWritable; }));
        return pPort;
    }
    void wait(int nTimeoutMs) { ASSERT_TRUE(m_poller.wait(nTimeoutMs, m_strError)) << m_strError; }

    const std::string m_strRsp = RSP + std::to_string(::getpid());
    const std::string m_strEvt = EVT + std::to_string(::getpid());
    CFd m_fdRsp;
    CFd m_fdEvt;
    std::string m_strError;
    CPoller m_poller;
    CClientPipesOpener m_opener{m_poller};
    int m_nBroken = 0;
    int m_nWritable = 0;
};
} // namespace

TEST(ClientPipeNames, AreThePrefixesWithOneProcessID)
{
    CClientPipeNames names;
    std::string strError;
    EXPECT_TRUE(parseClientPipeNames(body(RSP + "1234567", EVT + "1234567"), names, strError)) << strError;
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
        EXPECT_FALSE(parseClientPipeNames(body(RSP + strSuffix, EVT + strSuffix), names, strError)) << strSuffix;
        EXPECT_FALSE(parseClientPipeNames(body(RSP + "5", EVT + strSuffix), names, strError)) << strSuffix;
    }
    EXPECT_FALSE(parseClientPipeNames(body("/tmp/other-5", EVT + "5"), names, strError));
    EXPECT_FALSE(parseClientPipeNames(body("", ""), names, strError));
    EXPECT_FALSE(parseClientPipeNames(body(EVT + "5", RSP + "5"), names, strError));
    EXPECT_FALSE(parseClientPipeNames(body(RSP + "5", EVT + "6"), names, strError));
    EXPECT_THAT(strError, HasSubstr("two processes"));
}

TEST(ClientPipeNames, WithoutAnEndAreRefused)
{
    CClientPipeNames names;
    std::string strError;
    structMICMD::ConnectBody body = ::body(RSP + "5", EVT + "5");
    std::fill(std::begin(body.szEvtPipe) + EVT.size(), std::end(body.szEvtPipe), '5');
    EXPECT_FALSE(parseClientPipeNames(body, names, strError));
    EXPECT_THAT(strError, HasSubstr("no end"));
}

TEST_F(ClientPipes, CarryResponsesAndEvents)
{
    makeFifos();
    openReaders();
    const auto pPort = open();
    ASSERT_TRUE(pPort) << m_strError;
    structMIRSP rsp = {};
    rsp.nRespSequenceNo = 42;
    EXPECT_EQ(pPort->sendResponse(rsp), ESend::Sent);
    EXPECT_EQ(pPort->sendEvent({MIEVT_DONE, 1, 2, 3}), ESend::Sent);
    structMIRSP rspRead = {};
    EXPECT_EQ(::read(m_fdRsp.get(), &rspRead, sizeof(rspRead)), 48);
    EXPECT_EQ(rspRead.nRespSequenceNo, 42U);
    structMIEVT evtRead = {};
    EXPECT_EQ(::read(m_fdEvt.get(), &evtRead, sizeof(evtRead)), 16);
    EXPECT_EQ(evtRead, (structMIEVT{MIEVT_DONE, 1, 2, 3}));
}

TEST_F(ClientPipes, MustExist)
{
    EXPECT_FALSE(open());
    EXPECT_THAT(m_strError, HasSubstr("No such file"));
    EXPECT_NE(::access(m_strRsp.c_str(), F_OK), 0);
}

TEST_F(ClientPipes, MustHaveAReader)
{
    makeFifos();
    EXPECT_FALSE(open());
    EXPECT_THAT(m_strError, HasSubstr("is read by nobody"));
}

TEST_F(ClientPipes, MustNotBeLinks)
{
    const CTempFolder folder;
    ASSERT_EQ(::mkfifo(folder.path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::symlink(folder.path("fifo").c_str(), m_strRsp.c_str()), 0);
    ASSERT_EQ(::mkfifo(m_strEvt.c_str(), 0600), 0);
    openReaders();
    EXPECT_FALSE(open());
    EXPECT_THAT(m_strError, HasSubstr(m_strRsp + " is not a FIFO"));
}

TEST_F(ClientPipes, MustNotBeRegularFilesAndThoseStayAsTheyAre)
{
    writeBytes(m_strRsp, {1, 2, 3});
    ASSERT_EQ(::mkfifo(m_strEvt.c_str(), 0600), 0);
    openReaders();
    EXPECT_FALSE(open());
    EXPECT_THAT(m_strError, HasSubstr("is not a FIFO"));
    EXPECT_EQ(readBytes(m_strRsp), (CSamples{1, 2, 3}));
}

TEST_F(ClientPipes, MustNotBeFoldersSocketsOrDevices)
{
    ASSERT_EQ(::mkfifo(m_strEvt.c_str(), 0600), 0);
    m_fdEvt = CFd(::open(m_strEvt.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    ASSERT_EQ(::mkdir(m_strRsp.c_str(), 0700), 0);
    EXPECT_FALSE(open());
    EXPECT_THAT(m_strError, HasSubstr("is not a FIFO"));
    ASSERT_EQ(::rmdir(m_strRsp.c_str()), 0);

    const CFd fdSocket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    setText(address.sun_path, m_strRsp);
    ASSERT_EQ(::bind(fdSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_FALSE(open());
    EXPECT_THAT(m_strError, HasSubstr("is not a FIFO"));
    ::unlink(m_strRsp.c_str());

    if (::mknod(m_strRsp.c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0)
    {
        EXPECT_FALSE(open());
        EXPECT_THAT(m_strError, HasSubstr("is not a FIFO"));
    }
}

TEST_F(ClientPipes, MustHaveNoOtherNames)
{
    makeFifos();
    openReaders();
    const std::string strOther = m_strRsp + "-other";
    ASSERT_EQ(::link(m_strEvt.c_str(), strOther.c_str()), 0);
    EXPECT_FALSE(open());
    EXPECT_THAT(m_strError, HasSubstr(m_strEvt + " has other names"));
    ::unlink(strOther.c_str());
    EXPECT_TRUE(open()) << m_strError;
    ::unlink(m_strRsp.c_str());
    ASSERT_EQ(::link(m_strEvt.c_str(), m_strRsp.c_str()), 0);
    EXPECT_FALSE(open());
    EXPECT_THAT(m_strError, HasSubstr("has other names"));
}

TEST_F(ClientPipes, MustBelongToOneUser)
{
    makeFifos();
    openReaders();
    if (::chown(m_strEvt.c_str(), 12345, 12345) != 0)
        GTEST_SKIP() << "only root can give a file away";
    EXPECT_FALSE(open());
    EXPECT_THAT(m_strError, HasSubstr("are not two pipes of one user"));
    ASSERT_EQ(::chown(m_strRsp.c_str(), 12345, 12345), 0);
    EXPECT_TRUE(open()) << m_strError;
}

TEST_F(ClientPipes, ThatAreFullTakeNoHalfEventAndTellWhenThereIsRoom)
{
    const auto pPort = mustOpen();
    uint32_t nSent = 0;
    while (nSent < 100000 && pPort->sendEvent({MIEVT_DONE, 1, nSent, 0}) == ESend::Sent)
        ++nSent;
    ASSERT_LT(nSent, 100000U);
    EXPECT_EQ(pPort->sendEvent({}), ESend::Full);
    pPort->watchForRoom(true);
    wait(0);
    EXPECT_EQ(m_nWritable, 0);

    structMIEVT evt = {};
    for (uint32_t n = 0; n < nSent; ++n)
    {
        ASSERT_EQ(::read(m_fdEvt.get(), &evt, sizeof(evt)), static_cast<ssize_t>(sizeof(evt)));
        ASSERT_EQ(evt.nSequenceID, n);
    }
    wait(5000);
    EXPECT_EQ(m_nWritable, 1);
    EXPECT_EQ(pPort->sendEvent({}), ESend::Sent);
    pPort->watchForRoom(false);
    wait(0);
    EXPECT_EQ(m_nWritable, 1);
    EXPECT_EQ(m_nBroken, 0);
}

TEST_F(ClientPipes, FullOfResponsesSayFull)
{
    makeFifos();
    openReaders();
    const auto pPort = open();
    ASSERT_TRUE(pPort) << m_strError;
    ESend eSend = ESend::Sent;
    for (int n = 0; n < 100000 && eSend == ESend::Sent; ++n)
        eSend = pPort->sendResponse({});
    EXPECT_EQ(eSend, ESend::Full);
}

TEST_F(ClientPipes, ReportThatTheirReaderHasVanished)
{
    for (CFd* pReader : {&m_fdEvt, &m_fdRsp})
    {
        m_nBroken = 0;
        const auto pPort = mustOpen();
        wait(0);
        EXPECT_EQ(m_nBroken, 0);
        pReader->close();
        wait(5000);
        EXPECT_EQ(m_nBroken, 1);
        EXPECT_EQ(pReader == &m_fdEvt ? pPort->sendEvent({}) : pPort->sendResponse({}), ESend::Gone);
        ::unlink(m_strRsp.c_str());
        ::unlink(m_strEvt.c_str());
    }
    EXPECT_EQ(m_nWritable, 0);
}

TEST_F(ClientPipes, MayBeEndedByWhoIsToldThatTheyAreBroken)
{
    makeFifos();
    openReaders();
    auto pPort = open();
    ASSERT_TRUE(pPort) << m_strError;
    ASSERT_TRUE(pPort->watch(
        [this, &pPort] {
            pPort.reset();
            ++m_nBroken;
        },
        [] {}));
    m_fdRsp.close();
    m_fdEvt.close();
    wait(5000);
    wait(0);
    EXPECT_EQ(m_nBroken, 1);
    EXPECT_FALSE(pPort);
}

TEST_F(ClientPipes, AreGoneWithEitherOfTheirNames)
{
    for (const std::string& strPath : {m_strRsp, m_strEvt})
    {
        const auto pPort = mustOpen();
        EXPECT_FALSE(pPort->isGone());
        ASSERT_EQ(::rename(strPath.c_str(), (strPath + "-old").c_str()), 0);
        EXPECT_TRUE(pPort->isGone());
        ASSERT_EQ(::mkfifo(strPath.c_str(), 0600), 0);
        EXPECT_TRUE(pPort->isGone());
        ASSERT_EQ(::rename((strPath + "-old").c_str(), strPath.c_str()), 0);
        EXPECT_FALSE(pPort->isGone());
        ::unlink(m_strRsp.c_str());
        ::unlink(m_strEvt.c_str());
        EXPECT_TRUE(pPort->isGone());
    }
}

TEST_F(ClientPipes, AreGoneWhenTheirProcessHasEnded)
{
    CChild process;
    process.start(::pause);
    makeFifos();
    openReaders();
    const auto pipes = [&, nProcessID = process.processID()] {
        return CClientPipes({m_strRsp, m_strEvt, nProcessID}, CFd(::open(m_strRsp.c_str(), O_WRONLY | O_NONBLOCK)),
                            CFd(::open(m_strEvt.c_str(), O_WRONLY | O_NONBLOCK)), m_poller);
    };
    const CClientPipes client = pipes();
    EXPECT_FALSE(client.isGone());
    process.kill();
    EXPECT_TRUE(client.isGone());
    // A process that was never to be seen lives elsewhere; nothing can be said of it.
    EXPECT_FALSE(pipes().isGone());
}
