// Pipes of 8 KiB, as a user has them who has too many, and pipes that are full.
#include "WithDriver.h"

#include <cerrno>
#include <map>
#include <sys/ioctl.h>

namespace
{
const int SMALL = 8192;                            // bytes
const size_t EVENTS = SMALL / sizeof(structMIEVT); // in a small pipe
const size_t STREAMS = EVENTS + 100;

// An end of its own of one of the pipes. The capacity is the pipe's, and stays.
class CPipeEnd
{
public:
    explicit CPipeEnd(const std::string& strPath) : m_nPipe(open(strPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC))
    {
        EXPECT_EQ(SMALL, fcntl(m_nPipe, F_SETPIPE_SZ, SMALL)) << strPath << ": " << strerror(errno);
    }
    ~CPipeEnd() { close(m_nPipe); }
    CPipeEnd(const CPipeEnd&) = delete;
    CPipeEnd& operator=(const CPipeEnd&) = delete;

    void fill(const structMICMD& request) const
    {
        while (write(m_nPipe, &request, sizeof(request)) == static_cast<ssize_t>(sizeof(request)))
        {
        }
        EXPECT_EQ(EAGAIN, errno);
    }
    // The place of an event that was read may be taken only when its whole page has been read.
    bool isFull() const
    {
        int nBytes = 0;
        const int nRead = static_cast<int>(sizeof(structMIEVT));
        return ioctl(m_nPipe, FIONREAD, &nBytes) == 0 && nBytes + nRead >= SMALL;
    }

private:
    const int m_nPipe;
};

class SmallPipes : public CSystemTest
{
protected:
    void endPlaysAtOnce()
    {
        m_driver.onCommand(
            MICMD_PLAYFILE,
            [this](const structMICMD& request) {
                m_driver.accept(request);
                m_driver.done(request);
            });
    }

    // A request of a client that is none.
    static structMICMD strangeRequest()
    {
        structMICMD request = {};
        request.s_micmd = MICMD_PING;
        request.nConnectID = 4711;
        return request;
    }

    CBarrier m_gate;
};

class FullEventPipe : public CWithDriverTest
{
protected:
    void holdUpFirstCompletion(const std::function<void()>& before)
    {
        m_completions.m_onCompletion = [this, before](const CCompletion&) {
            if (m_bFirst)
            {
                m_bFirst = false;
                before();
                m_gate.wait();
            }
        };
    }

    CBarrier m_gate;
    bool m_bFirst = true;
};
} // namespace

TEST_F(SmallPipes, CarryEverythingOfManyThreads)
{
    const CPipeEnd request(MI_REQUEST_PIPE);
    const CPipeEnd response(responsePipe());
    const CPipeEnd event(eventPipe());
    endPlaysAtOnce();
    const size_t CALLS = 20;
    const size_t CALLERS = 4;
    const size_t PLAYS = 5;
    std::vector<std::thread> vThreads;
    for (size_t nThread = 0; nThread < CALLERS; ++nThread)
        vThreads.emplace_back([&, nThread] {
            for (size_t nCall = 0; nCall < CALLS; ++nCall)
            {
                CZelMediaStream* pStream = nullptr;
                EXPECT_EQ(MCS_OK, m_pServices->openMediaStream(&pStream, "call", nThread));
                const size_t nBefore = completionsOf(m_completions, pStream);
                for (size_t nPlay = 0; nPlay < PLAYS; ++nPlay)
                    EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
                EXPECT_TRUE(waitUntil([&] { return completionsOf(m_completions, pStream) == nBefore + PLAYS; }));
                m_pServices->closeMediaStream(pStream);
            }
        });
    for (std::thread& thread : vThreads)
        thread.join();
    EXPECT_EQ(CALLERS * CALLS * PLAYS, m_completions.count());
    EXPECT_EQ(0u, m_pLog->count("(Error)"));
}

TEST_F(SmallPipes, FullRequestPipeIs45AndIsTriedEachSecondUntilThereIsRoom)
{
    CZelMediaStream* const pStream = open();
    const unsigned long ulFileID = openPhraseFile("/p/a.ul");
    m_driver.ignore(MICMD_PING);
    m_driver.freeze();
    const CPipeEnd request(MI_REQUEST_PIPE);
    request.fill(strangeRequest());

    EXPECT_EQ(MCS_PIPEWRITE, play(pStream, "/p/1.wav"));
    EXPECT_EQ(MCS_NOTCONNECTED, tryOpen());
    const std::string strLine = "(Error) CMIntf::sendCommand, error writing request pipe " + std::to_string(EAGAIN);
    ASSERT_TRUE(m_pLog->waitFor(strLine, 3)); // two more by connects
    EXPECT_EQ(0u, m_completions.count());

    m_driver.thaw();
    ASSERT_TRUE(waitConnected(2));
    EXPECT_TRUE(m_driver.waitCount(MICMD_OPENFILE, 2));
    EXPECT_EQ(0u, m_driver.count(MICMD_PLAYFILE)) << "what was not written must not come later";
    CZelMediaStream* const pNext = open();
    EXPECT_EQ(MCS_OK, pNext->playAddPhrase(ulFileID, 0, 8000, 60, 0, 0));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYCLIP));
    EXPECT_TRUE(m_completions.waitCount(1));
}

TEST_F(SmallPipes, CommandsOfAFailureThatFindNoRoomInTheEventPipeAreDestroyedAndTheOthersReported)
{
    const CPipeEnd event(eventPipe());
    m_completions.m_onCompletion = [this](const CCompletion&) { m_gate.wait(); };
    CZelMediaStream* const pFirst = open();
    EXPECT_EQ(MCS_OK, play(pFirst, "/p/first.wav"));
    for (size_t n = 0; n < STREAMS; ++n)
        EXPECT_EQ(MCS_OK, play(open(), "/p/1.wav"));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    ASSERT_TRUE(m_gate.waitReached());

    m_driver.ignore(MICMD_RECORDGETSTATUS);
    EXPECT_EQ(MCS_NORESPONSE, pFirst->recordGetStatus()); // after ten seconds
    EXPECT_TRUE(event.isFull());
    EXPECT_EQ(STREAMS - EVENTS,
              m_pLog->count("(Error) CMIntf::sendEvent, error writing event pipe " + std::to_string(EAGAIN)));
    m_gate.open();
    ASSERT_TRUE(m_completions.waitCount(1 + EVENTS));
    EXPECT_TRUE(waitCommandsAlive(0));
    EXPECT_EQ(1 + EVENTS, m_completions.count());
    const std::vector<CCompletion> vAll = m_completions.all();
    for (size_t n = 1; n < vAll.size(); ++n)
        EXPECT_EQ(MCS_NORESPONSE, vAll[n].mcstatus);
    EXPECT_EQ(MCS_OK, play(pFirst, "/p/again.wav"));
}

// The handler makes its calls while hundreds of events wait in the pipe and in the driver.
TEST_F(FullEventPipe, EventsThatDoNotFitWaitInTheDriverAndAllComplete)
{
    startLibrary();
    ASSERT_TRUE(startDriver());
    ASSERT_TRUE(waitConnected());
    const size_t nErrorsBefore = m_pLog->count("(Error)"); // until the driver was there
    const CPipeEnd event(eventPipe());
    CBarrier filled;
    holdUpFirstCompletion([&] {
        filled.wait();
        for (int n = 0; n < 20; ++n)
        {
            CZelMediaStream* const pStream = open("inside-" + std::to_string(n));
            EXPECT_EQ(MCS_OK, play(pStream, SHORT_FILE));
            EXPECT_EQ(MCS_OK, pStream->playCancel());
        }
    });
    std::vector<CZelMediaStream*> vOutside;
    for (size_t n = 0; n < STREAMS; ++n)
    {
        vOutside.push_back(open("outside-" + std::to_string(n)));
        EXPECT_EQ(MCS_OK, play(vOutside.back(), SHORT_FILE));
    }
    ASSERT_TRUE(filled.waitReached());
    EXPECT_TRUE(waitUntil([&] { return event.isFull(); }));
    filled.open();
    ASSERT_TRUE(m_gate.waitReached());
    unsigned long ulMilliSeconds = 0;
    EXPECT_EQ(MCS_OK, vOutside[0]->recordGetTimeMilliseconds(&ulMilliSeconds)) << "other threads go on as well";
    m_gate.open();
    ASSERT_TRUE(m_completions.waitCount(STREAMS + 20));
    std::map<CZelMediaStream*, int> mapCount;
    for (const CCompletion& completion : m_completions.all())
        ++mapCount[completion.pStream];
    EXPECT_EQ(STREAMS + 20, mapCount.size()) << "each once";
    EXPECT_EQ(nErrorsBefore, m_pLog->count("(Error)"));
}
