// A driver program with a good client, for tests in which others behave badly.
#ifndef HOSTILE_FIXTURE_H
#define HOSTILE_FIXTURE_H

#include "DriverTestSupport.h"
#include "ProgramSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

std::string rspPath(int nProcessID);
std::string evtPath(int nProcessID);
structMICMD connectCommand(const std::string& strRspPipe, const std::string& strEvtPipe);

// A client in a process of its own that pings and plays all the time, and ends badly as soon as a ping is
// not answered, or an event is missing, twice there, out of order or not one of success.
class CGoodClient
{
public:
    explicit CGoodClient(const CTempFolder& folder);

    bool waitConnected();

    // Whether it has been served twice more from beginning to end.
    bool isServed();

    // Ends it. Whether it was served well, and its caller has heard it all.
    bool waitEnd();

private:
    CChildProcess m_child;
};

// At the end the good client has not noticed anything, and the driver holds no more descriptors and
// memory than at the beginning, and has not filled its log.
class CHostileFixture : public testing::Test
{
protected:
    CHostileFixture();
    void SetUp() override;
    void TearDown() override;

    // Whether all clients but the good one have left the driver before long.
    bool waitUntilAllLeft();

    // Writes into the request pipe when there is room.
    void write(const void* pBytes, size_t nSize);
    void write(const structMICMD& cmd) { write(&cmd, sizeof(cmd)); }

    // Whether the driver has taken everything that was written, and still serves.
    bool isTaken() { return m_pGood->isServed(); }

    CTempFolder m_folder; // with clip.wav, and call.in.wav
    std::unique_ptr<CDriverProgram> m_pDriver;
    std::unique_ptr<CGoodClient> m_pGood;
    CFd m_fdReq;
    size_t m_nDescriptors = 0;
    size_t m_nMemory = 0;
};

// Two FIFOs with readers under the names of a process, and nothing that came through them yet.
class CFifoPair
{
public:
    explicit CFifoPair(int nProcessID);

    bool isEmpty() const;

    const std::string m_strRsp;
    const std::string m_strEvt;

private:
    CFd m_fdRsp;
    CFd m_fdEvt;
};

#endif
