// The public interface against a scripted driver on real pipes, for tests of the built library.
#ifndef SERVICES_FIXTURE_H
#define SERVICES_FIXTURE_H

#include "Completions.h"
#include "LogCapture.h"
#include "ScriptedDriver.h"
#include "ZelMediaServices.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

// A text argument as the interface takes it.
inline char* text(const char* pszText)
{
    return const_cast<char*>(pszText);
}

// A running driver, services connected to it, the log captured. The driver interface lives until
// the process ends, so each test case runs in a process of its own.
class CServicesTest : public testing::Test
{
protected:
    CServicesTest() : m_driver(false), m_pLog(std::make_shared<CLogRecord>())
    {
        m_pServices = std::make_unique<CZelMediaServices>(&m_completions);
        m_pServices->setLogger(new CLogCapture(m_pLog), nullptr);
        m_driver.start();
        EXPECT_TRUE(waitConnected());
    }

    // Waits until the library has connected for the nth time (from 1): what it writes once the new
    // connection counts.
    bool waitConnected(size_t nTimes = 1) { return m_pLog->waitFor("CMIntf::reopenClipFiles, m_nConnectID", nTimes); }

    CZelMediaStream* openStream(const std::string& strCallID = "call-1", unsigned long ulLegID = 1)
    {
        CZelMediaStream* pStream = nullptr;
        EXPECT_EQ(MCS_OK, m_pServices->openMediaStream(&pStream, strCallID, ulLegID));
        return pStream;
    }

    CScriptedDriver m_driver;
    CCompletions m_completions;
    std::shared_ptr<CLogRecord> m_pLog;
    std::unique_ptr<CZelMediaServices> m_pServices;
};

#endif
