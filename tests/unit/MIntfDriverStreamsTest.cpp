// Driver streams: opening registers the owner, closing discards all that is held for the stream.
#include "EventThreadFixture.h"

#include <cstring>

class MIntfDriverStreams : public CEventThreadTest
{
protected:
    int openStream(CZelMediaStreamImpl* pstream, const char* pszCallID, unsigned long ulLegID, int& nStreamID)
    {
        std::string strCallID = pszCallID;
        return m_pmintf->openStream(pstream, &nStreamID, strCallID.data(), ulLegID);
    }

    CZelMediaStreamImpl m_stream;
};

TEST_F(MIntfDriverStreams, OpenedStreamIsRegisteredUnderTheDriversID)
{
    respondNext(MIRSP_OPENSTREAM, 31);
    int nStreamID = -2;
    EXPECT_EQ(MCS_OK, openStream(&m_stream, "call-1", 4000000000UL, nStreamID));
    EXPECT_EQ(31, nStreamID);
    const CLogLines vLines = m_pLog->lines();
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(1u, vAddresses.size());
    EXPECT_EQ(
        immediateLines(vAddresses[0], "MICMD_OPENSTREAM", 1, "MIRSP_OPENSTREAM") +
            CLogLines{operationLine("<<<CMIntf::openConferenceStream (callid call-1, legid 4000000000), streamid 31")},
        vLines);
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_OPENSTREAM, vRequests[0].s_micmd);
    EXPECT_EQ(77, vRequests[0].nConnectID);
    EXPECT_STREQ("call-1", vRequests[0].openStream.szCallID);
    EXPECT_EQ(4000000000u, vRequests[0].openStream.nLegID);
    EXPECT_EQ((std::map<int, CZelMediaStreamImpl*>{{31, &m_stream}}), m_pmintf->m_mapStreamByStreamID);
}

TEST_F(MIntfDriverStreams, CallIDIsCutTo31Characters)
{
    const std::string str31(31, 'c');
    int nStreamID = -2;
    respondNext(MIRSP_OPENSTREAM, 31);
    openStream(&m_stream, str31.c_str(), 1, nStreamID);
    respondNext(MIRSP_OPENSTREAM, 32);
    openStream(&m_stream, (str31 + "d").c_str(), 1, nStreamID);
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(2u, vRequests.size());
    for (const structMICMD& cmd : vRequests)
    {
        EXPECT_EQ(str31, std::string(cmd.openStream.szCallID, strnlen(cmd.openStream.szCallID, 32)));
        EXPECT_EQ(1u, cmd.openStream.nLegID);
    }
    EXPECT_TRUE(
        m_pLog->has(operationLine("<<<CMIntf::openConferenceStream (callid " + str31 + "d, legid 1), streamid 32")));
}

TEST_F(MIntfDriverStreams, ReusedDriverIDBelongsToTheNewStream)
{
    CZelMediaStreamImpl streamOld;
    m_pmintf->m_mapStreamByStreamID[31] = &streamOld;
    int nStreamID = -2;
    respondNext(MIRSP_OPENSTREAM, 31);
    EXPECT_EQ(MCS_OK, openStream(&m_stream, "call-1", 1, nStreamID));
    EXPECT_EQ((std::map<int, CZelMediaStreamImpl*>{{31, &m_stream}}), m_pmintf->m_mapStreamByStreamID);
}

TEST_F(MIntfDriverStreams, RefusedStreamIsNotRegistered)
{
    respond(1, MIRSP_STATUS, 1);
    int nStreamID = -2;
    EXPECT_EQ(MCS_REFUSED, openStream(&m_stream, "call-1", 2, nStreamID));
    EXPECT_EQ(-1, nStreamID);
    const CLogLines vLines = m_pLog->lines();
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(1u, vAddresses.size());
    EXPECT_EQ(immediateRefusedLines(vAddresses[0], "MICMD_OPENSTREAM", 1) +
                  CLogLines{operationLine("<<<CMIntf::openConferenceStream (callid call-1, legid 2), streamid -1")},
              vLines);
    EXPECT_TRUE(m_pmintf->m_mapStreamByStreamID.empty());
}

TEST_F(MIntfDriverStreams, StreamOpenedWithoutADriverIsNotRegistered)
{
    disconnect();
    int nStreamID = -2;
    EXPECT_EQ(MCS_NOTCONNECTED, openStream(&m_stream, "call-1", 2, nStreamID));
    EXPECT_EQ(-1, nStreamID);
    EXPECT_TRUE(m_pmintf->m_mapStreamByStreamID.empty());
}

TEST_F(MIntfDriverStreams, NoLockIsHeldWhileAStreamIsOpened)
{
    std::vector<int> vDepths;
    respondNext(MIRSP_OPENSTREAM, 31);
    {
        CLineHook hook(m_pLog, [&](const std::string& strLine) {
            if (contains(strLine, "CMIntf::sendCommand (0), cmd") || contains(strLine, "<<<CMIntf::open"))
                vDepths.push_back(m_pmintf->m_pCritSecCMIntf->depth());
        });
        int nStreamID = -2;
        openStream(&m_stream, "call-1", 1, nStreamID);
    }
    EXPECT_EQ((std::vector<int>{0, 0}), vDepths);
}

TEST_F(MIntfDriverStreams, ClosingFreesAllCommandsOfTheStreamWithoutCompletions)
{
    addStream(5);
    CZelMediaStreamImpl* const pstreamOther = addStream(6);
    CMIntf::CCommand* const pcommandPlay = play(5);
    CMIntf::CCommand* const pcommandRecord = record(5);
    CMIntf::CCommand* const apcommandQueued[] = {play(5), play(5), record(5), record(5)};
    play(6);
    CMIntf::CCommand* const pcommandOther = play(6);
    takeRequests();
    CLogLines vExpected = {closeStreamLine(5)};
    for (const CMIntf::CCommand* const pcommand : apcommandQueued)
        vExpected.push_back(destroyedLine(pcommand));
    vExpected.push_back(operationLine("Brudel702 CMIntf::closeStream, calling remActiveCommand id 5"));
    vExpected = vExpected + removalLines(5, 0xFFFFFFFF, pcommandPlay, pcommandRecord, true);
    respondNext();
    const uint32_t nSequenceNo = m_pmintf->m_nNextSequenceNo;
    m_newLines.beginHere();
    EXPECT_EQ(MCS_OK, m_pmintf->closeStream(5));

    const CLogLines vLines = m_newLines.get();
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(1u, vAddresses.size());
    EXPECT_EQ(vExpected + immediateLines(vAddresses[0], "MICMD_CLOSESTREAM", nSequenceNo), vLines);
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_CLOSESTREAM, vRequests[0].s_micmd);
    EXPECT_EQ(77, vRequests[0].nConnectID);
    EXPECT_EQ(5, vRequests[0].stream.nStreamID);
    EXPECT_TRUE(m_handler.m_vReports.empty());
    EXPECT_TRUE(takeEvents().empty());
    EXPECT_EQ((std::map<int, CZelMediaStreamImpl*>{{6, pstreamOther}}), m_pmintf->m_mapStreamByStreamID);
    EXPECT_EQ(0u, m_pmintf->m_mapCommandQueue.count(5));
    EXPECT_EQ(0u, m_pmintf->m_mapCommandQueueRecord.count(5));
    EXPECT_EQ(CMIntf::CCommandList{pcommandOther}, *m_pmintf->m_mapCommandQueue.at(6));
    EXPECT_EQ(1u, m_pmintf->m_mmapActiveCommandByTimeout.size());
    EXPECT_EQ(2, commandsAlive());
}

TEST_F(MIntfDriverStreams, EventForAClosedStreamIsStale)
{
    play(5);
    play(5);
    respondNext();
    m_pmintf->closeStream(5);
    takeRequests();
    done(5, 1, 3);
    done(5, 1, 0);
    EXPECT_TRUE(m_handler.m_vReports.empty());
    EXPECT_TRUE(takeRequests().empty());
    expectNothingLeft();
}

TEST_F(MIntfDriverStreams, UnknownStreamIsClosedAtTheDriverAllTheSame)
{
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->closeStream(5));
    const CLogLines vLines = m_pLog->lines();
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(1u, vAddresses.size());
    EXPECT_EQ(
        (CLogLines{closeStreamLine(5), operationLine("Brudel702 CMIntf::closeStream, calling remActiveCommand id 5")}) +
            removalLines(5, 0xFFFFFFFF, nullptr, nullptr) + immediateLines(vAddresses[0], "MICMD_CLOSESTREAM", 1),
        vLines);
    EXPECT_EQ(1u, takeRequests().size());
}

TEST_F(MIntfDriverStreams, FailedCloseLeavesNothingBehindEither)
{
    addStream(5);
    play(5);
    record(5);
    play(5);
    respondNext(MIRSP_STATUS, 1);
    EXPECT_EQ(MCS_REFUSED, m_pmintf->closeStream(5));
    EXPECT_TRUE(m_pmintf->m_mapStreamByStreamID.empty());
    expectNothingLeft();

    addStream(6);
    play(6);
    disconnect();
    EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->closeStream(6));
    EXPECT_TRUE(m_pmintf->m_mapStreamByStreamID.empty());
    expectNothingLeft();
}

TEST_F(MIntfDriverStreams, ClosingEmptiesUnderOneHoldOfTheLockAndSendsWithoutIt)
{
    play(5);
    play(5);
    respondNext();
    std::vector<int> vDepths;
    {
        CLineHook hook(m_pLog, [&](const std::string& strLine) {
            if (contains(strLine, "closeStream") || contains(strLine, "~CCommand") ||
                contains(strLine, "CMIntf::sendCommand (0), cmd"))
                vDepths.push_back(m_pmintf->m_pCritSecCMIntf->depth());
        });
        m_pmintf->closeStream(5);
    }
    // Entry, queued command, "Brudel702", active command, request, and the end of that one in the transport.
    EXPECT_EQ((std::vector<int>{0, 1, 1, 1, 0, 1}), vDepths);
}
