// A CMIntf without its event thread, for tests that drive one operation at a time.
#ifndef MINTF_FIXTURE_H
#define MINTF_FIXTURE_H

#include "LogCapture.h"
#include "MIntf.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

// The interface stands in g_pmintf, its pipes are real, its log is a capture (empty at the start of
// the test), and it counts as connected: requests go into a pipe that the test reads, responses are
// written into the response pipe before the call that will read them. The event pipe holds what
// the library injects until the test reads it. The passes of the event thread are called by hand.
class CMIntfTest : public testing::Test
{
protected:
    static constexpr int CONNECT_ID = 77;

    CMIntfTest();
    ~CMIntfTest() override;

    void disconnect(); // as if the driver had gone: no request pipe, no id

    // Puts a response into the response pipe.
    void respond(uint32_t nSequenceNo, MIRSP mirsp = MIRSP_STATUS, int32_t nResult = 0);
    // The same with the number that the next request will get, or the nth after it.
    void respondNext(MIRSP mirsp = MIRSP_STATUS, int32_t nResult = 0, uint32_t nAhead = 0);
    std::vector<structMICMD> takeRequests(); // everything written to the request pipe since last time
    std::vector<structMIEVT> takeEvents();   // everything written to the event pipe since last time

    // A filled command, owned by whom it is handed to. Stream requests carry the stream id.
    CMIntf::CCommand* newCommand(int nStreamID, MICMD micmd = MICMD_PLAYFILE, uint32_t nTimeout = 300,
                                 CMIntfCompletionHandler* pHandler = nullptr, int bDone = 1);
    // Sends it with an accepting driver: afterwards it is active, or queued behind the active one.
    CMIntf::CCommand* sendCommand(int nStreamID, MICMD micmd = MICMD_PLAYFILE, uint32_t nTimeout = 300,
                                  CMIntfCompletionHandler* pHandler = nullptr, int bDone = 1, int bUsePlayQueue = 0);
    // How many CCommand records exist, by their trace lines (since the start of the test).
    int commandsAlive() const;

    std::shared_ptr<CLogRecord> m_pLog;
    CMIntf* m_pmintf; // == g_pmintf
    int m_nRequestReader = -1;
};

// Records what CMIntf reports.
class CHandlerRecorder : public CMIntfCompletionHandler
{
public:
    struct CReport
    {
        int nStreamID;
        MCSTATUS mcstatus;
        CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON reason;
        bool operator==(const CReport& other) const
        {
            return nStreamID == other.nStreamID && mcstatus == other.mcstatus && reason == other.reason;
        }
    };
    void OnCMIntfCompletion(int nStreamID, MCSTATUS mcstatus,
                            CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON reason) override
    {
        m_vReports.push_back({nStreamID, mcstatus, reason});
    }
    std::vector<CReport> m_vReports;
};

#endif
