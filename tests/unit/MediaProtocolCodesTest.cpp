// The protocol's codes and statuses: their values, their names, what they mean to the library.
#include "MIntf.h"

#include <climits>
#include <gtest/gtest.h>
#include <map>
#include <set>

TEST(MediaProtocolCodes, CommandsHaveTheirValuesAndNames)
{
    const struct
    {
        MICMD micmd;
        int nValue;
        const char* pszName;
    } aCodes[] = {{MICMD_NULL, 0, "MICMD_NULL"},
                  {MICMD_CONNECT, 1, "MICMD_CONNECT"},
                  {MICMD_DISCONNECT, 2, "MICMD_DISCONNECT"},
                  {MICMD_OPENFILE, 3, "MICMD_OPENFILE"},
                  {MICMD_CLOSEFILE, 4, "MICMD_CLOSEFILE"},
                  {MICMD_OPENSTREAM, 5, "MICMD_OPENSTREAM"},
                  {MICMD_CLOSESTREAM, 6, "MICMD_CLOSESTREAM"},
                  {MICMD_PLAYCLIP, 7, "MICMD_PLAYCLIP"},
                  {MICMD_PLAYFILE, 8, "MICMD_PLAYFILE"},
                  {MICMD_RECORDFILE, 9, "MICMD_RECORDFILE"},
                  {MICMD_CANCEL, 10, "MICMD_CANCEL"},
                  {MICMD_PLAYGETSTATS, 11, "MICMD_PLAYGETSTATS"},
                  {MICMD_RECORDGETSTATS, 12, "MICMD_RECORDGETSTATS"},
                  {MICMD_PING, 13, "MICMD_PING"},
                  {MICMD_DUMP, 14, "MICMD_DUMP"},
                  {MICMD_RECORDGETTIME, 15, "MICMD_RECORDGETTIME"},
                  {MICMD_RECORDGETSTATUS, 16, "MICMD_RECORDGETSTATUS"}};
    for (const auto& code : aCodes)
    {
        EXPECT_EQ(code.nValue, code.micmd);
        EXPECT_STREQ(code.pszName, MICMDToString(static_cast<MICMD>(code.nValue)));
    }
    for (const int nUnknown : {17, -1, 1000, INT_MAX, INT_MIN})
        EXPECT_STREQ("MICMD unknown", MICMDToString(static_cast<MICMD>(nUnknown)));
}

TEST(MediaProtocolCodes, OnlyPlaysAndRecordsEndWithAnEvent)
{
    std::set<int> active;
    for (const CCommandInfo& info : aCommands)
        if (info.m_bActive)
            active.insert(info.m_micmd);
    EXPECT_EQ((std::set<int>{MICMD_PLAYCLIP, MICMD_PLAYFILE, MICMD_RECORDFILE}), active);
}

TEST(MediaProtocolCodes, CommandsThatAskForAValueAreAnsweredByAResponseOfTheirOwn)
{
    const std::map<int, int> expected = {{MICMD_CONNECT, MIRSP_CONNECT},
                                         {MICMD_OPENFILE, MIRSP_OPENFILE},
                                         {MICMD_OPENSTREAM, MIRSP_OPENSTREAM},
                                         {MICMD_PLAYGETSTATS, MIRSP_PLAYGETSTATS},
                                         {MICMD_RECORDGETSTATS, MIRSP_RECORDGETSTATS},
                                         {MICMD_RECORDGETTIME, MIRSP_RECORDGETTIME},
                                         {MICMD_RECORDGETSTATUS, MIRSP_RECORDGETSTATUS}};
    for (const CCommandInfo& info : aCommands)
    {
        const auto it = expected.find(info.m_micmd);
        EXPECT_EQ(it == expected.end() ? MIRSP_STATUS : it->second, info.m_mirsp) << info.m_pszName;
    }
}

TEST(MediaProtocolCodes, CommandsOfOneStreamAreThoseFromOpenToStatusButForFilesAndProcesses)
{
    std::set<int> others;
    for (const CCommandInfo& info : aCommands)
        if (!namesStream(info))
            others.insert(info.m_micmd);
    EXPECT_EQ((std::set<int>{MICMD_CONNECT, MICMD_DISCONNECT, MICMD_OPENFILE, MICMD_CLOSEFILE, MICMD_PING, MICMD_DUMP}),
              others);
}

TEST(MediaProtocolCodes, CommandsAreFoundByTheirShortNames)
{
    for (const CCommandInfo& info : aCommands)
        EXPECT_EQ(&info, commandInfo(std::string_view(info.m_pszShortName)));
    ASSERT_NE(nullptr, commandInfo(std::string_view("playfile")));
    EXPECT_EQ(MICMD_PLAYFILE, commandInfo(std::string_view("playfile"))->m_micmd);
    EXPECT_EQ(nullptr, commandInfo(std::string_view("PLAYFILE")));
    EXPECT_EQ(nullptr, commandInfo(std::string_view("")));
}

TEST(MediaProtocolCodes, NumbersOfNoCommandAreNone)
{
    for (const int nNone : {0, COMMAND_COUNT + 1, -1, INT_MAX, INT_MIN})
        EXPECT_EQ(nullptr, commandInfo(nNone));
}

TEST(MediaProtocolCodes, ResponsesHaveTheirValuesAndNames)
{
    const struct
    {
        MIRSP mirsp;
        int nValue;
        const char* pszName;
    } aCodes[] = {{MIRSP_NULL, 0, "MIRSP_NULL"},
                  {MIRSP_STATUS, 1, "MIRSP_STATUS"},
                  {MIRSP_CONNECT, 2, "MIRSP_CONNECT"},
                  {MIRSP_OPENFILE, 3, "MIRSP_OPENFILE"},
                  {MIRSP_OPENSTREAM, 4, "MIRSP_OPENSTREAM"},
                  {MIRSP_PLAYGETSTATS, 5, "MIRSP_PLAYGETSTATS"},
                  {MIRSP_RECORDGETSTATS, 6, "MIRSP_RECORDGETSTATS"},
                  {MIRSP_RECORDGETTIME, 7, "MIRSP_RECORDGETTIME"},
                  {MIRSP_RECORDGETSTATUS, 8, "MIRSP_RECORDGETSTATUS"}};
    for (const auto& code : aCodes)
    {
        EXPECT_EQ(code.nValue, code.mirsp);
        EXPECT_STREQ(code.pszName, MIRSPToString(static_cast<MIRSP>(code.nValue)));
    }
    for (const int nUnknown : {9, -1, INT_MAX, INT_MIN})
        EXPECT_STREQ("MIRSP unknown", MIRSPToString(static_cast<MIRSP>(nUnknown)));
}

TEST(MediaProtocolCodes, EventsHaveTheirValuesAndNames)
{
    EXPECT_EQ(0, MIEVT_NULL);
    EXPECT_EQ(1, MIEVT_DONE);
    EXPECT_STREQ("MIEVT_NULL", MIEVTToString(static_cast<MIEVT>(0)));
    EXPECT_STREQ("MIEVT_DONE", MIEVTToString(static_cast<MIEVT>(1)));
    for (const int nUnknown : {2, -1, INT_MAX, INT_MIN})
        EXPECT_STREQ("MIEVT unknown", MIEVTToString(static_cast<MIEVT>(nUnknown)));
}

TEST(MediaProtocolCodes, StatusesHaveTheirValues)
{
    EXPECT_EQ(0, MCS_OK);
    EXPECT_EQ(2, MCS_INVALIDHANDLE);
    EXPECT_EQ(3, MCS_CANCELLED);
    EXPECT_EQ(4, MCS_OUTOFMEMORY);
    EXPECT_EQ(6, MCS_THREADFAILED);
    EXPECT_EQ(8, MCS_LOCKFAILED);
    EXPECT_EQ(16, MCS_NORESPONSE);
    EXPECT_EQ(34, MCS_REFUSED);
    EXPECT_EQ(41, MCS_UNKNOWNPHRASEFILE);
    EXPECT_EQ(42, MCS_PIPECREATE);
    EXPECT_EQ(43, MCS_PIPEOPEN);
    EXPECT_EQ(44, MCS_PIPEREAD);
    EXPECT_EQ(45, MCS_PIPEWRITE);
    EXPECT_EQ(46, MCS_TIMEDOUT);
    EXPECT_EQ(47, MCS_NOTCONNECTED);
    EXPECT_EQ(48, MCS_NOTINITIALIZED);
    EXPECT_EQ(49, MCS_NOTSUPPORTED);
}

TEST(MediaProtocolCodes, OnlyAStatusResponseOfOneIsARefusal)
{
    for (int nCode = -1; nCode <= 9; ++nCode)
    {
        for (const int nResult : {INT_MIN, -1, 0, 1, 2, 34, INT_MAX})
        {
            structMIRSP rsp = {};
            rsp.s_mirsp = static_cast<MIRSP>(nCode);
            rsp.s_nResult = nResult;
            EXPECT_EQ(nCode == 1 && nResult == 1 ? 34 : 0, CMIntf::getResponseMCCSTATUS(&rsp))
                << "code " << nCode << ", result " << nResult;
        }
    }
}

TEST(MediaProtocolCodes, OnlyADoneEventHasAStatus)
{
    for (const int nCode : {INT_MIN, -1, 0, 1, 2, INT_MAX})
    {
        for (const int nStatus : {INT_MIN, -1, 0, 3, 45, 4711})
        {
            structMIEVT evt = {};
            evt.s_mievt = static_cast<MIEVT>(nCode);
            evt.s_mcstatus = nStatus;
            EXPECT_EQ(nCode == 1 ? nStatus : 0, CMIntf::getEventMCCSTATUS(&evt)) << "code " << nCode;
        }
    }
}

TEST(MediaProtocolCodes, PipeFailuresAloneAreFatal)
{
    const std::set<int> fatal = {42, 43, 44, 45};
    for (int nStatus = -100; nStatus <= 1000; ++nStatus)
        EXPECT_EQ(fatal.count(nStatus) == 1, CMIntf::driverFatalError(nStatus)) << nStatus;
    EXPECT_FALSE(CMIntf::driverFatalError(INT_MIN));
    EXPECT_FALSE(CMIntf::driverFatalError(INT_MAX));
}
