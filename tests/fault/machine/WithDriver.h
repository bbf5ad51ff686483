// The library connected to the reference driver, for tests of both on a difficult machine.
#ifndef WITH_DRIVER_H
#define WITH_DRIVER_H

#include "Machine.h"
#include "Places.h"
#include "ReferenceDriver.h"

const char SHORT_FILE[] = "/tmp/short.ul"; // 20 ms
const char LONG_FILE[] = "/tmp/long.ul";   // 60 s

class CWithDriverTest : public testing::Test
{
protected:
    CWithDriverTest() : m_pLog(std::make_shared<CLogRecord>())
    {
        mkdir("/tmp/calls", 0777);
        std::ofstream(SHORT_FILE, std::ios::binary) << std::string(160, '\x55');
        std::ofstream(LONG_FILE, std::ios::binary) << std::string(60 * 8000, '\x55');
    }
    ~CWithDriverTest() override
    {
        for (CZelMediaStream* const pStream : m_vStreams)
            m_pServices->closeMediaStream(pStream);
    }

    void startLibrary()
    {
        m_pServices = std::make_unique<CZelMediaServices>(&m_completions);
        m_pServices->setLogger(new CLogCapture(m_pLog), nullptr);
    }
    bool startDriver(std::vector<std::string> vOptions = {"--speed", "max"})
    {
        vOptions.insert(vOptions.end(), {"--audio", "/tmp/calls", "--log", "/tmp/driver.log"});
        return m_driver.start(REFERENCE_DRIVER_PROGRAM, vOptions);
    }
    bool waitConnected() { return m_pLog->waitFor("CMIntf::reopenClipFiles, m_nConnectID"); }

    CZelMediaStream* open(const std::string& strCallID)
    {
        CZelMediaStream* pStream = nullptr;
        EXPECT_EQ(MCS_OK, m_pServices->openMediaStream(&pStream, strCallID, 1));
        if (pStream)
            m_vStreams.push_back(pStream);
        return pStream;
    }

    static int play(CZelMediaStream* pStream, const char* pszFile)
    {
        return pStream->playAddFile(text(pszFile), 0, 60, 0, 0, 0);
    }

    CDriverProcess m_driver;
    CCompletions m_completions;
    std::shared_ptr<CLogRecord> m_pLog;
    std::unique_ptr<CZelMediaServices> m_pServices;
    std::vector<CZelMediaStream*> m_vStreams;
};

#endif
