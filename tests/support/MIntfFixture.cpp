#include "MIntfFixture.h"
#include "PlatformSeams.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace
{
template <class RECORD> std::vector<RECORD> takeRecords(int nDescriptor)
{
    std::vector<RECORD> vRecords;
    RECORD record;
    while (read(nDescriptor, &record, sizeof(record)) == static_cast<ssize_t>(sizeof(record)))
        vRecords.push_back(record);
    return vRecords;
}
} // namespace

CMIntfTest::CMIntfTest() : m_pLog(std::make_shared<CLogRecord>())
{
    seams::setThreads(seams::Threads::Pretend);
    m_pmintf = new CMIntf;
    m_pmintf->m_bEventThreadRunning = 0; // so that finalize waits for nobody
    g_pmintf = m_pmintf;
    m_pmintf->replaceLogFile(new CLogCapture(m_pLog));

    int anPipe[2];
    if (pipe2(anPipe, O_NONBLOCK | O_CLOEXEC) != 0)
        ADD_FAILURE() << "no pipe: " << strerror(errno);
    m_nRequestReader = anPipe[0];
    m_pmintf->m_npipeReq = anPipe[1];
    m_pmintf->m_nConnectID = CONNECT_ID;
    m_pLog->clear();
}

CMIntfTest::~CMIntfTest()
{
    // Nobody would answer MICMD_DISCONNECT.
    m_pmintf->m_nConnectID = -1;
    delete m_pmintf;
    g_pmintf = nullptr;
    close(m_nRequestReader);
    seams::realTick();
    seams::setThreads(seams::Threads::Real);
}

void CMIntfTest::disconnect()
{
    close(m_pmintf->m_npipeReq);
    m_pmintf->m_npipeReq = -1;
    m_pmintf->m_nConnectID = -1;
}

void CMIntfTest::respond(uint32_t nSequenceNo, MIRSP mirsp, int32_t nResult)
{
    structMIRSP rsp = {};
    rsp.s_mirsp = mirsp;
    rsp.nRespSequenceNo = nSequenceNo;
    rsp.s_nResult = nResult;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(rsp)), write(m_pmintf->m_npipeRsp, &rsp, sizeof(rsp)));
}

void CMIntfTest::respondNext(MIRSP mirsp, int32_t nResult, uint32_t nAhead)
{
    respond(m_pmintf->m_nNextSequenceNo + nAhead, mirsp, nResult);
}

std::vector<structMICMD> CMIntfTest::takeRequests()
{
    return takeRecords<structMICMD>(m_nRequestReader);
}

std::vector<structMIEVT> CMIntfTest::takeEvents()
{
    return takeRecords<structMIEVT>(m_pmintf->m_npipeEvt);
}

CMIntf::CCommand* CMIntfTest::newCommand(int nStreamID, MICMD micmd, uint32_t nTimeout,
                                         CMIntfCompletionHandler* pHandler, int bDone)
{
    auto* const pcommand = new CMIntf::CCommand;
    pcommand->m_nStreamID = nStreamID;
    pcommand->m_bDone = bDone;
    pcommand->m_nTimeout = nTimeout;
    pcommand->m_ullTimeoutTick = 0;
    pcommand->m_pcomplHandler = pHandler;
    pcommand->m_cmd = structMICMD();
    pcommand->m_cmd.s_micmd = micmd;
    pcommand->m_cmd.nConnectID = CONNECT_ID;
    pcommand->m_cmd.stream.nStreamID = nStreamID;
    return pcommand;
}

CMIntf::CCommand* CMIntfTest::sendCommand(int nStreamID, MICMD micmd, uint32_t nTimeout,
                                          CMIntfCompletionHandler* pHandler, int bDone, int bUsePlayQueue)
{
    const bool bPlaySide = bUsePlayQueue || micmd == MICMD_PLAYCLIP || micmd == MICMD_PLAYFILE;
    const auto& mapActive =
        bPlaySide ? m_pmintf->m_mapActiveCommandByStreamIDPlay : m_pmintf->m_mapActiveCommandByStreamIDRecord;
    if (mapActive.count(nStreamID) == 0)
        respondNext();
    CMIntf::CCommand* const pcommand = newCommand(nStreamID, micmd, nTimeout, pHandler, bDone);
    structMIRSP rsp;
    EXPECT_EQ(MCS_OK, m_pmintf->sendCommand(pcommand, &rsp, bUsePlayQueue));
    return pcommand;
}

int CMIntfTest::commandsAlive() const
{
    return static_cast<int>(m_pLog->count("CCommand::CCommand this")) -
           static_cast<int>(m_pLog->count("CCommand::~CCommand this"));
}
