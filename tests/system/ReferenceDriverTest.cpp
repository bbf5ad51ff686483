// The library and the reference driver together: what an application meets, fault rules included.
#include "ReferenceDriver.h"
#include "Completions.h"
#include "LogCapture.h"
#include "SystemFixture.h"

#include <arpa/inet.h>
#include <csignal>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>

namespace
{
using CSamples = std::string; // µ-law, 8000 per second

const char CALLS[] = "/tmp/calls";

CSamples noise(size_t nCount, unsigned nSeed)
{
    CSamples samples;
    for (size_t n = 0; n < nCount; ++n)
    {
        nSeed = nSeed * 1103515245u + 12345u;
        samples += static_cast<char>(nSeed >> 16);
    }
    return samples;
}

void writeFile(const std::string& strPath, const std::string& strBytes)
{
    std::ofstream(strPath, std::ios::binary) << strBytes;
}

std::string readFile(const std::string& strPath)
{
    std::ostringstream bytes;
    bytes << std::ifstream(strPath, std::ios::binary).rdbuf();
    return bytes.str();
}

// What stands behind the header of a WAV file.
CSamples samplesOf(const std::string& strPath)
{
    const std::string strBytes = readFile(strPath);
    const size_t nData = strBytes.find("data");
    return nData == std::string::npos ? "" : strBytes.substr(nData + 8);
}

// A port of the loopback that nobody had a moment ago.
std::string freePort()
{
    const int nSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nSize = sizeof(address);
    void* const pAddress = &address;
    EXPECT_EQ(0, bind(nSocket, static_cast<sockaddr*>(pAddress), nSize));
    EXPECT_EQ(0, getsockname(nSocket, static_cast<sockaddr*>(pAddress), &nSize));
    close(nSocket);
    return std::to_string(ntohs(address.sin_port));
}

class ReferenceDriver : public testing::Test
{
protected:
    ReferenceDriver() : m_pLog(std::make_shared<CLogRecord>())
    {
        mkdir(CALLS, 0777);
        writeFile("/tmp/a.ul", m_a);
        writeFile("/tmp/b.ul", m_b);
        writeFile("/tmp/long.ul", noise(600 * 8000, 3));
        m_pServices = std::make_unique<CZelMediaServices>(&m_completions);
        m_pServices->setLogger(new CLogCapture(m_pLog), nullptr);
    }
    ~ReferenceDriver() override
    {
        for (CZelMediaStream* const pStream : m_vStreams)
            m_pServices->closeMediaStream(pStream);
    }

    void start(std::vector<std::string> vOptions = {"--speed", "max"})
    {
        vOptions.insert(vOptions.end(), {"--audio", CALLS, "--log", "/tmp/driver.log"});
        ASSERT_TRUE(m_driver.start(vOptions));
        ASSERT_TRUE(m_pLog->waitFor("CMIntf::reopenClipFiles, m_nConnectID", ++m_nStarts));
    }

    CZelMediaStream* open(const std::string& strCallID, unsigned long ulLegID = 1)
    {
        CZelMediaStream* pStream = nullptr;
        EXPECT_EQ(MCS_OK, m_pServices->openMediaStream(&pStream, strCallID, ulLegID));
        if (pStream)
            m_vStreams.push_back(pStream);
        return pStream;
    }

    static int play(CZelMediaStream* pStream, const char* pszFile)
    {
        return pStream->playAddFile(text(pszFile), 0, 60, 0, 0, 0);
    }

    static int record(CZelMediaStream* pStream, const char* pszFile, unsigned long ulMaxSeconds)
    {
        return pStream->recordToFile(text(pszFile), 0, ulMaxSeconds, 60, 0);
    }

    // What has completed so far, waiting for that many.
    std::vector<CCompletion> completions(size_t nCount)
    {
        EXPECT_TRUE(m_completions.waitCount(nCount)) << readFile("/tmp/driver.log");
        return m_completions.all();
    }

    static CCompletion played(CZelMediaStream* pStream, MCSTATUS mcstatus)
    {
        return {pStream, mcstatus, CHandler::MCCR_PLAY};
    }

    const CSamples m_a = noise(1234, 1);
    const CSamples m_b = noise(4321, 2);
    CReferenceDriver m_driver;
    CCompletions m_completions;
    std::shared_ptr<CLogRecord> m_pLog;
    std::unique_ptr<CZelMediaServices> m_pServices;
    std::vector<CZelMediaStream*> m_vStreams;
    size_t m_nStarts = 0;
};
} // namespace

TEST_F(ReferenceDriver, PlaysFilesAndPhrasesOneAfterTheOtherBitExact)
{
    start();
    CZelMediaStream* const pStream = open("call");
    unsigned long ulPhrases = 0;
    EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/tmp/b.ul"), &ulPhrases));
    EXPECT_EQ(MCS_OK, play(pStream, "/tmp/a.ul"));
    EXPECT_EQ(MCS_OK, pStream->playAddPhrase(ulPhrases, 1000, 2000, 60, 0, 0));
    EXPECT_EQ(MCS_OK, pStream->playAddPhrase(ulPhrases, 4000, 2000, 60, 0, 0));
    EXPECT_EQ(std::vector<CCompletion>(3, played(pStream, MCS_OK)), completions(3));
    EXPECT_EQ(m_a + m_b.substr(1000, 2000) + m_b.substr(4000), samplesOf("/tmp/calls/call-1.heard.wav"));
}

TEST_F(ReferenceDriver, RecordsWhatTheCallerSays)
{
    start();
    CZelMediaStream* const pCaller = open("call", 2);
    unsigned long ulMs = 0;
    // The driver itself has made the caller's file: it is what another call has heard.
    EXPECT_EQ(MCS_OK, play(open("source"), "/tmp/b.ul"));
    completions(1);
    rename("/tmp/calls/source-1.heard.wav", "/tmp/calls/call.in.wav");
    EXPECT_EQ(MCS_OK, record(pCaller, "/tmp/message.ul", 30));
    EXPECT_TRUE(waitUntil([&] { return pCaller->recordGetStatus() == 2; }));
    EXPECT_EQ(MCS_OK, pCaller->recordGetTimeMilliseconds(&ulMs));
    EXPECT_EQ(m_b.size() / 8, ulMs);
    EXPECT_EQ(m_b, readFile("/tmp/message.ul"));
}

TEST_F(ReferenceDriver, EndsACancelledPlayWith3AndAMissingFileWith34)
{
    start({});
    CZelMediaStream* const pStream = open("call");
    EXPECT_EQ(MCS_OK, play(pStream, "/tmp/long.ul"));
    EXPECT_EQ(MCS_OK, pStream->playCancel());
    EXPECT_EQ(std::vector<CCompletion>(1, played(pStream, MCS_CANCELLED)), completions(1));
    EXPECT_EQ(MCS_REFUSED, play(pStream, "/tmp/none.ul"));
}

TEST_F(ReferenceDriver, HangsUp)
{
    start({});
    CZelMediaStream* const pStream = open("call");
    CZelMediaStream* const pOther = open("call", 2);
    EXPECT_EQ(MCS_OK, play(pStream, "/tmp/long.ul"));
    EXPECT_EQ(MCS_OK, play(pOther, "/tmp/long.ul"));
    EXPECT_TRUE(CReferenceDriver::control({"hangup", "call=call", "leg=1"}));
    EXPECT_EQ(std::vector<CCompletion>(1, played(pStream, 5)), completions(1));
    EXPECT_EQ(MCS_REFUSED, play(pStream, "/tmp/a.ul"));
    EXPECT_EQ(MCS_OK, pOther->playCancel());
    completions(2);
}

TEST_F(ReferenceDriver, RefusesTheCommandThatAFaultRuleNames)
{
    start({"--speed", "max", "--fault", "do=refuse,on=playfile,nth=2"});
    CZelMediaStream* const pStream = open("call");
    EXPECT_EQ(MCS_OK, play(pStream, "/tmp/a.ul"));
    completions(1);
    EXPECT_EQ(MCS_REFUSED, play(pStream, "/tmp/a.ul"));
    EXPECT_EQ(MCS_OK, play(pStream, "/tmp/a.ul"));
    completions(2);
}

TEST_F(ReferenceDriver, GivesTheStatusThatAFaultRuleSays)
{
    start({"--speed", "max", "--fault", "do=status,on=play,status=99,count=1"});
    CZelMediaStream* const pStream = open("call");
    EXPECT_EQ(MCS_OK, play(pStream, "/tmp/a.ul"));
    EXPECT_EQ(std::vector<CCompletion>(1, played(pStream, 99)), completions(1));
}

TEST_F(ReferenceDriver, AnswersLateAndTwiceAndTheLibraryFindsItsAnswers)
{
    start();
    CZelMediaStream* const pStream = open("call");
    EXPECT_TRUE(CReferenceDriver::control({"fault", "do=late", "on=playfile", "ms=300"}));
    EXPECT_TRUE(CReferenceDriver::control({"fault", "do=twice", "on=playfile"}));
    EXPECT_EQ(MCS_OK, play(pStream, "/tmp/a.ul"));
    completions(1);
    EXPECT_EQ(MCS_OK, play(pStream, "/tmp/b.ul"));
    EXPECT_EQ(std::vector<CCompletion>(2, played(pStream, MCS_OK)), completions(2));
}

TEST_F(ReferenceDriver, LeavesARequestUnansweredAndTheLibraryGivesUpAfterItsBudget)
{
    start();
    CZelMediaStream* const pStream = open("call");
    EXPECT_TRUE(CReferenceDriver::control({"fault", "do=drop", "on=playfile", "nth=1"}));
    EXPECT_EQ(MCS_NORESPONSE, play(pStream, "/tmp/a.ul"));
    EXPECT_EQ(MCS_OK, play(open("next"), "/tmp/a.ul"));
}

TEST_F(ReferenceDriver, FreezesAndGoesOn)
{
    start();
    CZelMediaStream* const pStream = open("call");
    EXPECT_TRUE(CReferenceDriver::control({"freeze", "ms=300"}));
    EXPECT_EQ(MCS_OK, play(pStream, "/tmp/a.ul"));
    EXPECT_EQ(std::vector<CCompletion>(1, played(pStream, MCS_OK)), completions(1));
}

TEST_F(ReferenceDriver, DiesAndItsSuccessorHasThePhrases)
{
    start();
    unsigned long ulPhrases = 0;
    EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text("/tmp/b.ul"), &ulPhrases));
    CZelMediaStream* const pLost = open("lost");
    EXPECT_TRUE(CReferenceDriver::control({"fault", "do=die", "on=playfile"}));
    EXPECT_EQ(MCS_NORESPONSE, play(pLost, "/tmp/a.ul"));
    m_driver.waitEnd();
    EXPECT_EQ(MCS_PIPEWRITE, play(pLost, "/tmp/a.ul"));
    start();
    CZelMediaStream* const pNew = open("new");
    EXPECT_EQ(MCS_OK, pNew->playAddPhrase(ulPhrases, 0, 4321, 60, 0, 0));
    EXPECT_EQ(std::vector<CCompletion>(1, played(pNew, MCS_OK)), completions(1));
    EXPECT_EQ(m_b, samplesOf("/tmp/calls/new-1.heard.wav"));
}

TEST_F(ReferenceDriver, CarriesSpeechFromOneRtpChannelToTheOther)
{
    const std::string strNear = "\"127.0.0.1:" + freePort() + "\"";
    const std::string strFar = "\"127.0.0.1:" + freePort() + "\"";
    writeFile("/tmp/channels.json", R"({"channels": [
        {"call": "talk", "leg": 1, "type": "rtp", "local": )" +
                                        strNear + R"(, "remote": )" + strFar + R"(},
        {"call": "talk", "leg": 2, "type": "rtp", "local": )" +
                                        strFar + R"(, "remote": )" + strNear + R"(}]})");
    start({"--channels", "/tmp/channels.json"});
    CZelMediaStream* const pTalks = open("talk", 1);
    CZelMediaStream* const pListens = open("talk", 2);
    EXPECT_EQ(MCS_OK, record(pListens, "/tmp/heard.ul", 1));
    EXPECT_EQ(MCS_OK, play(pTalks, "/tmp/b.ul"));
    EXPECT_EQ(std::vector<CCompletion>(1, played(pTalks, MCS_OK)), completions(1));
    EXPECT_TRUE(waitUntil([&] { return pListens->recordGetStatus() == 2; }));
    const CSamples heard = readFile("/tmp/heard.ul");
    EXPECT_EQ(8000u, heard.size());
    EXPECT_NE(std::string::npos, heard.find(m_b));
}
