// Clip files: the library's ids, shared opens, and the reopening after a connect.
#include "ExpectedLines.h"
#include "MIntfFixture.h"

#include <cstring>

class MIntfClipFiles : public CMIntfTest
{
protected:
    // Opens a file; the driver, if asked, accepts it under this id.
    int openAs(const char* pszName, int nCMIntfFileID)
    {
        respondNext(MIRSP_OPENFILE, nCMIntfFileID);
        int nFileID = -2;
        EXPECT_EQ(MCS_OK, openFile(pszName, nFileID));
        return nFileID;
    }

    int openFile(const char* pszName, int& nFileID)
    {
        std::string strName = pszName;
        return m_pmintf->openFile(strName.data(), &nFileID);
    }

    int openRefused(const char* pszName)
    {
        respondNext(MIRSP_STATUS, 1);
        int nFileID = -2;
        EXPECT_EQ(MCS_REFUSED, openFile(pszName, nFileID));
        return nFileID;
    }

    std::vector<int> driverIDs() const
    {
        std::vector<int> vIDs;
        for (const auto& entry : m_pmintf->m_mapClipFileByID)
            vIDs.push_back(entry.second->m_nCMIntfFileID);
        return vIDs;
    }

    ~MIntfClipFiles() override
    {
        for (const auto& entry : m_pmintf->m_mapClipFileByID)
            delete entry.second;
        m_pmintf->m_mapClipFileByID.clear();
    }

    const CLogLine m_lineReopening = operationLine("CMIntf::reopenClipFiles");
    const CLogLine m_lineConnectID = infoLine("(Info) CMIntf::reopenClipFiles, m_nConnectID= \"77\" ");
};

TEST_F(MIntfClipFiles, FirstFileGetsIDOneAndIsOpenedAtTheDriver)
{
    EXPECT_EQ(1, openAs("/a.vox", 9));
    const CLogLines vLines = m_pLog->lines();
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(1u, vAddresses.size());
    EXPECT_EQ(immediateLines(vAddresses[0], "MICMD_OPENFILE", 1, "MIRSP_OPENFILE") +
                  CLogLines{operationLine("<<<CMIntf::openFile /a.vox, id 1")},
              vLines);
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_OPENFILE, vRequests[0].s_micmd);
    EXPECT_EQ(77, vRequests[0].nConnectID);
    EXPECT_STREQ("/a.vox", vRequests[0].openFile.szFileName);

    ASSERT_EQ(1u, m_pmintf->m_mapClipFileByID.count(1));
    const CMIntf::CClipFile& clipFile = *m_pmintf->m_mapClipFileByID.at(1);
    EXPECT_EQ("/a.vox", clipFile.m_strName);
    EXPECT_EQ(1, clipFile.m_nUseCount);
    EXPECT_EQ(9, clipFile.m_nCMIntfFileID);
    EXPECT_EQ(2, m_pmintf->m_nNextFileID);
    EXPECT_EQ(9, m_pmintf->mapFileIDToCMIntfFileID(1));
}

TEST_F(MIntfClipFiles, SameNameSharesOneFileUntilItsLastClose)
{
    openAs("/a.vox", 9);
    takeRequests();
    m_pLog->clear();
    int nFileID = -2;
    EXPECT_EQ(MCS_OK, openFile("/a.vox", nFileID));
    EXPECT_EQ(1, nFileID);
    EXPECT_EQ((CLogLines{operationLine("<<<CMIntf::openFile /a.vox, id 1")}), m_pLog->lines());
    EXPECT_EQ(2, m_pmintf->m_mapClipFileByID.at(1)->m_nUseCount);

    m_pLog->clear();
    EXPECT_EQ(MCS_OK, m_pmintf->closeFile(1));
    EXPECT_EQ((CLogLines{closeFileLine(1)}), m_pLog->lines());
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(9, m_pmintf->mapFileIDToCMIntfFileID(1));

    m_pLog->clear();
    respondNext();
    EXPECT_EQ(MCS_OK, m_pmintf->closeFile(1));
    const std::vector<std::string> vAddresses = createdAddresses(m_pLog->lines());
    ASSERT_EQ(1u, vAddresses.size());
    EXPECT_EQ(CLogLines{closeFileLine(1)} + immediateLines(vAddresses[0], "MICMD_CLOSEFILE", 2), m_pLog->lines());
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_CLOSEFILE, vRequests[0].s_micmd);
    EXPECT_EQ(77, vRequests[0].nConnectID);
    EXPECT_EQ(9, vRequests[0].closeFile.nFileID);
    EXPECT_TRUE(m_pmintf->m_mapClipFileByID.empty());
    EXPECT_EQ(-1, m_pmintf->mapFileIDToCMIntfFileID(1));
}

TEST_F(MIntfClipFiles, NamesAreComparedExactly)
{
    EXPECT_EQ(1, openAs("/a.vox", 9));
    EXPECT_EQ(2, openAs("/A.vox", 10));
    EXPECT_EQ(3, openAs("/a.vo", 11));
    EXPECT_EQ(4, openAs("//a.vox", 12));
    EXPECT_EQ(4u, takeRequests().size());
}

TEST_F(MIntfClipFiles, IDsAreNeverReused)
{
    for (int nFileID = 1; nFileID <= 5; ++nFileID)
    {
        EXPECT_EQ(nFileID, openAs("/a.vox", 9));
        respondNext();
        EXPECT_EQ(MCS_OK, m_pmintf->closeFile(nFileID));
    }
    EXPECT_EQ(6, m_pmintf->m_nNextFileID);
}

TEST_F(MIntfClipFiles, RefusedFileKeepsItsID)
{
    respond(1, MIRSP_STATUS, 1);
    int nFileID = -2;
    EXPECT_EQ(MCS_REFUSED, openFile("/a.vox", nFileID));
    EXPECT_EQ(1, nFileID);
    const CLogLines vLines = m_pLog->lines();
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(1u, vAddresses.size());
    EXPECT_EQ(immediateRefusedLines(vAddresses[0], "MICMD_OPENFILE", 1) +
                  CLogLines{operationLine("<<<CMIntf::openFile /a.vox, id 1")},
              vLines);
    EXPECT_EQ(-1, m_pmintf->mapFileIDToCMIntfFileID(1));
    EXPECT_EQ(1, m_pmintf->m_mapClipFileByID.at(1)->m_nUseCount);
    EXPECT_EQ(2, m_pmintf->m_nNextFileID);
}

TEST_F(MIntfClipFiles, RefusedFileIsSharedWithoutANewRequestAndOpenedByTheReopening)
{
    EXPECT_EQ(1, openRefused("/a.vox"));
    takeRequests();
    int nFileID = -2;
    EXPECT_EQ(MCS_OK, openFile("/a.vox", nFileID));
    EXPECT_EQ(1, nFileID);
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(2, m_pmintf->m_mapClipFileByID.at(1)->m_nUseCount);
    EXPECT_EQ(-1, m_pmintf->mapFileIDToCMIntfFileID(1));

    respondNext(MIRSP_OPENFILE, 21);
    m_pmintf->reopenClipFiles();
    EXPECT_EQ(21, m_pmintf->mapFileIDToCMIntfFileID(1));
}

TEST_F(MIntfClipFiles, RefusedFileIsClosedWithoutARequest)
{
    EXPECT_EQ(1, openRefused("/a.vox"));
    takeRequests();
    EXPECT_EQ(MCS_OK, m_pmintf->closeFile(1));
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_TRUE(m_pmintf->m_mapClipFileByID.empty());
}

TEST_F(MIntfClipFiles, FileOpenedWithoutADriverKeepsItsID)
{
    disconnect();
    int nFileID = -2;
    EXPECT_EQ(MCS_NOTCONNECTED, openFile("/a.vox", nFileID));
    EXPECT_EQ(1, nFileID);
    EXPECT_EQ(-1, m_pmintf->mapFileIDToCMIntfFileID(1));
}

TEST_F(MIntfClipFiles, LongNameIsCutOnTheWireOnly)
{
    const std::string str255(255, 'x');
    const std::string str256a = str255 + "a";
    const std::string str256b = str255 + "b";
    EXPECT_EQ(1, openAs(str255.c_str(), 1));
    EXPECT_EQ(2, openAs(str256a.c_str(), 2));
    EXPECT_EQ(3, openAs(str256b.c_str(), 3));
    for (const structMICMD& cmd : takeRequests())
    {
        EXPECT_STREQ(str255.c_str(), cmd.openFile.szFileName);
        EXPECT_EQ(0, reinterpret_cast<const char*>(&cmd)[267]);
    }
    EXPECT_EQ(str256b, m_pmintf->m_mapClipFileByID.at(3)->m_strName);
}

TEST_F(MIntfClipFiles, UnknownIDIsClosedAndMappedWithoutHarm)
{
    openAs("/a.vox", 9);
    takeRequests();
    m_pLog->clear();
    EXPECT_EQ(MCS_OK, m_pmintf->closeFile(2));
    EXPECT_EQ(MCS_OK, m_pmintf->closeFile(-1));
    EXPECT_EQ(-1, m_pmintf->mapFileIDToCMIntfFileID(2));
    EXPECT_EQ(-1, m_pmintf->mapFileIDToCMIntfFileID(-1));
    EXPECT_EQ((CLogLines{closeFileLine(2), closeFileLine(-1)}), m_pLog->lines());
    EXPECT_TRUE(takeRequests().empty());
}

TEST_F(MIntfClipFiles, StatusOfTheCloseIsReturnedAndTheFileIsGone)
{
    openAs("/a.vox", 9);
    openAs("/b.vox", 10);
    respondNext(MIRSP_STATUS, 1);
    EXPECT_EQ(MCS_REFUSED, m_pmintf->closeFile(1));
    disconnect();
    EXPECT_EQ(MCS_NOTCONNECTED, m_pmintf->closeFile(2));
    EXPECT_TRUE(m_pmintf->m_mapClipFileByID.empty());
}

TEST_F(MIntfClipFiles, ReopeningGivesEveryFileItsNewDriverIDInTheOrderOfTheIDs)
{
    openAs("/c.vox", 9);
    openRefused("/b.vox");
    openAs("/a.vox", 11);
    takeRequests();
    m_pLog->clear();
    for (uint32_t n = 0; n < 3; ++n)
        respondNext(MIRSP_OPENFILE, static_cast<int32_t>(20 + n), n);
    m_pmintf->reopenClipFiles();

    const CLogLines vLines = m_pLog->lines();
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(3u, vAddresses.size());
    CLogLines vExpected = {m_lineReopening, m_lineConnectID};
    for (uint32_t n = 0; n < 3; ++n)
    {
        vExpected = vExpected + immediateLines(vAddresses[n], "MICMD_OPENFILE", 4 + n, "MIRSP_OPENFILE") +
                    CLogLines{infoLine(text("(Info) CMIntf::reopenClipFiles, m_nCMIntfFileID= \"%u\" ", 20 + n))};
    }
    EXPECT_EQ(vExpected, vLines);
    const std::vector<structMICMD> vRequests = takeRequests();
    ASSERT_EQ(3u, vRequests.size());
    EXPECT_STREQ("/c.vox", vRequests[0].openFile.szFileName);
    EXPECT_STREQ("/b.vox", vRequests[1].openFile.szFileName);
    EXPECT_STREQ("/a.vox", vRequests[2].openFile.szFileName);
    EXPECT_EQ((std::vector<int>{20, 21, 22}), driverIDs());
}

TEST_F(MIntfClipFiles, ReopeningUsesTheCurrentConnectID)
{
    openAs("/a.vox", 9);
    takeRequests();
    m_pmintf->m_nConnectID = 1234;
    respondNext(MIRSP_OPENFILE, 20);
    m_pmintf->reopenClipFiles();
    EXPECT_EQ(1234, takeRequests().at(0).nConnectID);
}

TEST_F(MIntfClipFiles, FailedReopeningLeavesNoFileOpenAndStops)
{
    openAs("/a.vox", 9);
    openAs("/b.vox", 10);
    openAs("/c.vox", 11);
    takeRequests();
    m_pLog->clear();
    respond(4, MIRSP_OPENFILE, 20);
    respond(5, MIRSP_STATUS, 1);
    m_pmintf->reopenClipFiles();

    const CLogLines vLines = m_pLog->lines();
    const std::vector<std::string> vAddresses = createdAddresses(vLines);
    ASSERT_EQ(2u, vAddresses.size());
    EXPECT_EQ((CLogLines{m_lineReopening, m_lineConnectID}) +
                  immediateLines(vAddresses[0], "MICMD_OPENFILE", 4, "MIRSP_OPENFILE") +
                  CLogLines{infoLine("(Info) CMIntf::reopenClipFiles, m_nCMIntfFileID= \"20\" ")} +
                  immediateRefusedLines(vAddresses[1], "MICMD_OPENFILE", 5),
              vLines);
    EXPECT_EQ(2u, takeRequests().size());
    EXPECT_EQ((std::vector<int>{-1, -1, -1}), driverIDs());
    EXPECT_EQ(1, m_pmintf->m_mapClipFileByID.at(3)->m_nUseCount);
}

TEST_F(MIntfClipFiles, ReopeningNothingAsksNothing)
{
    m_pmintf->reopenClipFiles();
    EXPECT_EQ((CLogLines{m_lineReopening, m_lineConnectID}), m_pLog->lines());
    EXPECT_TRUE(takeRequests().empty());
}

TEST_F(MIntfClipFiles, ClipFileLockIsHeldAcrossTheRequestsAndTakenBeforeTheMainLock)
{
    openAs("/a.vox", 9);
    std::vector<std::pair<int, int>> vDepths; // of the clip-file lock and the main lock
    CLineHook hook(m_pLog, [&](const std::string& strLine) {
        if (contains(strLine, "CMIntf::sendCommand (0), cmd") || contains(strLine, "- sending") ||
            contains(strLine, "openFile") || contains(strLine, "closeFile"))
            vDepths.emplace_back(m_pmintf->m_pCritSecClipFiles->depth(), m_pmintf->m_pCritSecCMIntf->depth());
    });
    openAs("/b.vox", 10);
    EXPECT_EQ((std::vector<std::pair<int, int>>{{1, 0}, {1, 1}, {0, 0}}), vDepths);
    vDepths.clear();
    respondNext();
    m_pmintf->closeFile(1);
    EXPECT_EQ((std::vector<std::pair<int, int>>{{0, 0}, {1, 0}, {1, 1}}), vDepths);
    vDepths.clear();
    respondNext(MIRSP_OPENFILE, 20);
    m_pmintf->reopenClipFiles();
    EXPECT_EQ((std::vector<std::pair<int, int>>{{1, 0}, {1, 1}}), vDepths);
    EXPECT_EQ(0, m_pmintf->m_pCritSecClipFiles->depth());
}
