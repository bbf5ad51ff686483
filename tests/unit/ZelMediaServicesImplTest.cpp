// The services object: driver interface, registry of streams, routing, forwarding.
#include "ZelMediaServicesImpl.h"
#include "Completions.h"
#include "ExpectedLines.h"
#include "MIntfFixture.h"
#include "PlatformSeams.h"

#include <cstring>
#include <type_traits>

namespace
{
using CHandler = CZelMediaStreamCompletionHandler;

// A handle that only has to be told from others; nothing follows it.
CZelMediaStream* handle(uintptr_t n)
{
    return reinterpret_cast<CZelMediaStream*>(n);
}

// Explicit instantiations may name private members: this is how the lock gets into the tests.
template <class TAG, typename TAG::type MEMBER> struct CReveal
{
    friend typename TAG::type reveal(TAG) { return MEMBER; }
};
struct CLockTag
{
    typedef ZelCritSec* CZelMediaServicesImpl::*type;
    friend type reveal(CLockTag);
};
template struct CReveal<CLockTag, &CZelMediaServicesImpl::m_pCritSec>;

const ZelCritSec& lockOf(CZelMediaServicesImpl& services)
{
    return *(services.*reveal(CLockTag()));
}

// Tells how deep the lock of the services object was held whenever a line was written.
class CLockWatch : public OrvLogLib::CLogFile
{
public:
    CLockWatch(CZelMediaServicesImpl& services, std::vector<int>& vDepths)
        : CLogFile("Watch", nullptr, false, false, false), m_services(services), m_vDepths(vDepths)
    {
    }
    int LogStringArgListX(OrvLogLib::LogLib_Priority, const char*, const char*, va_list) override
    {
        m_vDepths.push_back(lockOf(m_services).depth());
        return 0;
    }

private:
    CZelMediaServicesImpl& m_services;
    std::vector<int>& m_vDepths;
};

class CMortalLog : public OrvLogLib::CLogFile
{
public:
    explicit CMortalLog(int& nDeaths) : CLogFile("Mortal", nullptr, false, false, false), m_nDeaths(nDeaths) {}
    ~CMortalLog() override { ++m_nDeaths; }

private:
    int& m_nDeaths;
};

class CLogRegistryPlain : public OrvLogLib::CLogFileRegistry
{
public:
    CLogRegistryPlain()
        : CLogFileRegistry(nullptr, "Test", nullptr, nullptr, nullptr, 0, 1, 100, 1000, 3, 1023, 0, 1023, 0, 10000, 0,
                           1, 40000, 1, 0)
    {
    }
};

class CMortalRegistry : public CLogRegistryPlain
{
public:
    explicit CMortalRegistry(int& nDeaths) : m_nDeaths(nDeaths) {}
    ~CMortalRegistry() override { ++m_nDeaths; }

private:
    int& m_nDeaths;
};
} // namespace

class ServicesImpl : public CMIntfTest
{
protected:
    ServicesImpl() : m_services(&m_completions) { takeRequests(); }
    ~ServicesImpl() override
    {
        disconnect();
        while (!m_pmintf->m_mapClipFileByID.empty())
            m_services.closePhraseFile(static_cast<unsigned long>(m_pmintf->m_mapClipFileByID.begin()->first));
    }

    std::vector<CLogLine> lines() const { return m_pLog->lines(); }

    CCompletions m_completions;
    CZelMediaServicesImpl m_services;
};

TEST_F(ServicesImpl, FirstOneCreatesTheDriverInterface)
{
    g_pmintf = nullptr;
    seams::setProcessID(4000001); // pipes beside those of the fixture's interface
    {
        CZelMediaServicesImpl services(nullptr);
        ASSERT_NE(nullptr, g_pmintf);
        EXPECT_NE(m_pmintf, g_pmintf);
        EXPECT_STREQ("/tmp/OrvMediaIntf-Rsp-p4000001", g_pmintf->m_szRspPipe);
        EXPECT_NE(-1, g_pmintf->m_npipeEvt);
    }
    ASSERT_NE(nullptr, g_pmintf) << "the interface outlives the services object";
    g_pmintf->m_bEventThreadRunning = 0;
    delete g_pmintf;
    g_pmintf = m_pmintf;
    seams::setProcessID(0);
}

TEST_F(ServicesImpl, LaterOneSharesTheDriverInterface)
{
    CZelMediaServicesImpl second(nullptr);
    EXPECT_EQ(m_pmintf, g_pmintf);
    EXPECT_EQ(std::vector<CLogLine>(), lines()) << "a second interface would have written its initialize line";
}

TEST_F(ServicesImpl, DestructionClosesNoStreamAndKeepsTheInterface)
{
    auto pServices = std::make_unique<CZelMediaServicesImpl>(&m_completions);
    pServices->addStream(handle(0x10), 5);
    m_pmintf->m_mapStreamByStreamID[5] = nullptr;
    m_pLog->clear();
    pServices.reset();
    EXPECT_EQ(m_pmintf, g_pmintf);
    EXPECT_EQ(1u, m_pmintf->m_mapStreamByStreamID.count(5));
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ(std::vector<CLogLine>(), lines());
}

TEST_F(ServicesImpl, CompletionIsTheThirdVirtualOperation)
{
    // Destructor in both forms, then the completion: a pointer to a virtual member holds its
    // place in the table, in bytes, plus one where no other word says that it is virtual.
    const auto pmember = &CMIntfCompletionHandler::OnCMIntfCompletion;
    uintptr_t nSlot = 0;
    memcpy(&nSlot, &pmember, sizeof(nSlot));
#if defined(__arm__) || defined(__aarch64__)
    EXPECT_EQ(2 * sizeof(void*), nSlot);
#else
    EXPECT_EQ(2 * sizeof(void*) + 1, nSlot);
#endif
    static_assert(std::is_base_of_v<CMIntfCompletionHandler, CZelMediaServicesImpl>);
    static_assert(std::is_abstract_v<CMIntfCompletionHandler>);
}

TEST_F(ServicesImpl, AddStreamTellsStreamAndIdAndSucceeds)
{
    EXPECT_EQ(0, m_services.addStream(handle(0x1234), 5));
    EXPECT_EQ((std::vector<CLogLine>{operationLine("CZelMediaServicesImpl::addStream 0x00001234, id 5")}), lines());
    EXPECT_TRUE(takeRequests().empty());
}

TEST_F(ServicesImpl, AddressInALineIsTheLow32Bits)
{
    if constexpr (sizeof(uintptr_t) > 4)
        m_services.addStream(handle(static_cast<uintptr_t>(0x7FFF12345678)), 5);
    else
        m_services.addStream(handle(0x12345678), 5);
    EXPECT_EQ((std::vector<CLogLine>{operationLine("CZelMediaServicesImpl::addStream 0x12345678, id 5")}), lines());
}

TEST_F(ServicesImpl, LaterStreamOfTheSameIdTakesThePlaceOfTheFirst)
{
    m_services.addStream(handle(0x10), 5);
    m_services.addStream(handle(0x20), 5);
    m_services.OnCMIntfCompletion(5, 0, CHandler::MCCR_PLAY);
    EXPECT_EQ((std::vector<CCompletion>{{handle(0x20), 0, CHandler::MCCR_PLAY}}), m_completions.all());
}

TEST_F(ServicesImpl, CompletionReachesTheStreamOfItsId)
{
    m_services.addStream(handle(0x10), 5);
    m_services.addStream(handle(0x20), 6);
    m_pLog->clear();
    m_services.OnCMIntfCompletion(5, 46, CHandler::MCCR_RECORD);
    EXPECT_EQ((std::vector<CCompletion>{{handle(0x10), 46, CHandler::MCCR_RECORD}}), m_completions.all());
    EXPECT_EQ(
        (std::vector<CLogLine>{operationLine("CZelMediaServicesImpl::OnCMIntfCompletion (0x00000010), sid 5, status "
                                             "0x0000002E, reason 0x00000002")}),
        lines());
}

TEST_F(ServicesImpl, StatusAndReasonOfACompletionPassUnchanged)
{
    m_services.addStream(handle(0x10), 5);
    m_pLog->clear();
    m_services.OnCMIntfCompletion(5, -2, CHandler::MCCR_OTHER);
    m_services.OnCMIntfCompletion(5, 12345, static_cast<CHandler::MCCOMPLETION_REASON>(3));
    EXPECT_EQ((std::vector<CCompletion>{{handle(0x10), -2, CHandler::MCCR_OTHER},
                                        {handle(0x10), 12345, static_cast<CHandler::MCCOMPLETION_REASON>(3)}}),
              m_completions.all());
    EXPECT_EQ(
        (std::vector<CLogLine>{operationLine("CZelMediaServicesImpl::OnCMIntfCompletion (0x00000010), sid 5, status "
                                             "0xFFFFFFFE, reason 0x00000000"),
                               operationLine("CZelMediaServicesImpl::OnCMIntfCompletion (0x00000010), sid 5, status "
                                             "0x00003039, reason 0x00000003")}),
        lines());
}

TEST_F(ServicesImpl, CompletionOfAnUnknownStreamIsOneLineAndDropped)
{
    m_services.OnCMIntfCompletion(9, 3, CHandler::MCCR_PLAY);
    EXPECT_EQ(
        (std::vector<CLogLine>{operationLine("CZelMediaServicesImpl::OnCMIntfCompletion (0x00000000), sid 9, status "
                                             "0x00000003, reason 0x00000001")}),
        lines());
    EXPECT_EQ(0u, m_completions.count());
}

TEST_F(ServicesImpl, CompletionWithoutAHandlerIsALine)
{
    CZelMediaServicesImpl services(nullptr);
    services.addStream(handle(0x10), 5);
    m_pLog->clear();
    services.OnCMIntfCompletion(5, 0, CHandler::MCCR_PLAY);
    EXPECT_EQ(
        (std::vector<CLogLine>{operationLine("CZelMediaServicesImpl::OnCMIntfCompletion (0x00000010), sid 5, status "
                                             "0x00000000, reason 0x00000001")}),
        lines());
}

TEST_F(ServicesImpl, LineOfACompletionPrecedesTheHandler)
{
    size_t nLines = 0;
    m_completions.m_onCompletion = [&](const CCompletion&) { nLines = m_pLog->count("OnCMIntfCompletion"); };
    m_services.addStream(handle(0x10), 5);
    m_services.OnCMIntfCompletion(5, 0, CHandler::MCCR_PLAY);
    EXPECT_EQ(1u, nLines);
}

TEST_F(ServicesImpl, HandlerRunsOutsideTheLockAndMayChangeTheRegistry)
{
    int nDepth = -1;
    m_completions.m_onCompletion = [&](const CCompletion&) {
        nDepth = lockOf(m_services).depth();
        disconnect();
        EXPECT_EQ(MCS_NOTCONNECTED, m_services.remStream(5));
        m_services.addStream(handle(0x20), 6);
    };
    m_services.addStream(handle(0x10), 5);
    m_services.OnCMIntfCompletion(5, 0, CHandler::MCCR_PLAY);
    EXPECT_EQ(0, nDepth);
    m_completions.m_onCompletion = nullptr;
    m_services.OnCMIntfCompletion(5, 0, CHandler::MCCR_PLAY);
    m_services.OnCMIntfCompletion(6, 0, CHandler::MCCR_PLAY);
    EXPECT_EQ(2u, m_completions.count());
}

TEST_F(ServicesImpl, HandlerMayDeleteTheServicesObject)
{
    auto* const pServices = new CZelMediaServicesImpl(&m_completions);
    m_completions.m_onCompletion = [&](const CCompletion&) { delete pServices; };
    pServices->addStream(handle(0x10), 5);
    pServices->OnCMIntfCompletion(5, 0, CHandler::MCCR_PLAY);
    EXPECT_EQ(1u, m_completions.count());
}

TEST_F(ServicesImpl, LinesAndDriverRequestsAreMadeOutsideTheLock)
{
    std::vector<int> vDepths;
    m_services.setLogger(new CLockWatch(m_services, vDepths), nullptr);
    respondNext();
    m_services.addStream(handle(0x10), 5);
    m_services.OnCMIntfCompletion(5, 0, CHandler::MCCR_PLAY);
    EXPECT_EQ(0, m_services.remStream(5));
    EXPECT_LT(5u, vDepths.size());
    EXPECT_EQ(std::vector<int>(vDepths.size(), 0), vDepths);
    m_services.setLogger(new CLogCapture(m_pLog), nullptr);
}

TEST_F(ServicesImpl, LockKeepsItsNameAndTheTagsOfEachPlace)
{
    const ZelCritSec& lock = lockOf(m_services);
    EXPECT_STREQ("CZelMediaServicesImpl", lock.name());
    m_services.addStream(handle(0x10), 5);
    EXPECT_EQ(2652, lock.enterTag());
    EXPECT_EQ(2656, lock.leaveTag());
    m_services.OnCMIntfCompletion(5, 0, CHandler::MCCR_PLAY);
    EXPECT_EQ(2625, lock.enterTag());
    EXPECT_EQ(2633, lock.leaveTag());
    respondNext();
    m_services.remStream(5);
    EXPECT_EQ(2668, lock.enterTag());
    EXPECT_EQ(2672, lock.leaveTag());
}

TEST_F(ServicesImpl, RemStreamUnregistersThenClosesAtTheDriver)
{
    m_services.addStream(handle(0x10), 5);
    m_pLog->clear();
    respondNext();
    EXPECT_EQ(0, m_services.remStream(5));
    ASSERT_LE(2u, lines().size());
    EXPECT_EQ(operationLine("CZelMediaServicesImpl::remStream, id 5"), lines()[0]);
    EXPECT_EQ(closeStreamLine(5), lines()[1]);
    const auto vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_CLOSESTREAM, vRequests[0].s_micmd);
    EXPECT_EQ(5, vRequests[0].stream.nStreamID);
    m_services.OnCMIntfCompletion(5, 0, CHandler::MCCR_PLAY);
    EXPECT_EQ(0u, m_completions.count());
}

TEST_F(ServicesImpl, RemStreamOfAnUnknownIdStillAsksTheDriver)
{
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_services.remStream(9));
    const auto vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_CLOSESTREAM, vRequests[0].s_micmd);
    EXPECT_EQ(9, vRequests[0].stream.nStreamID);
}

TEST_F(ServicesImpl, RemStreamWithoutADriverReturnsItsStatusAndUnregisters)
{
    m_services.addStream(handle(0x10), 5);
    disconnect();
    EXPECT_EQ(MCS_NOTCONNECTED, m_services.remStream(5));
    m_services.OnCMIntfCompletion(5, 0, CHandler::MCCR_PLAY);
    EXPECT_EQ(0u, m_completions.count());
}

TEST_F(ServicesImpl, SetLoggerReplacesOnlyTheLogFileWhenTheRegistryIsNull)
{
    int nLogDeaths = 0;
    int nRegistryDeaths = 0;
    m_services.setLogger(new CMortalLog(nLogDeaths), new CMortalRegistry(nRegistryDeaths));
    auto* const pRegistry = m_pmintf->m_pLogFileRegistry;
    auto* const pLogNew = new CLogCapture(m_pLog);
    m_services.setLogger(pLogNew, nullptr);
    EXPECT_EQ(1, nLogDeaths);
    EXPECT_EQ(0, nRegistryDeaths);
    EXPECT_EQ(pLogNew, m_pmintf->m_pLogFile);
    EXPECT_EQ(pRegistry, m_pmintf->m_pLogFileRegistry);
    m_services.setLogger(nullptr, new CLogRegistryPlain);
    EXPECT_EQ(1, nRegistryDeaths);
}

TEST_F(ServicesImpl, SetLoggerReplacesOnlyTheRegistryWhenTheLogFileIsNull)
{
    int nLogDeaths = 0;
    int nRegistryDeaths = 0;
    m_services.setLogger(new CMortalLog(nLogDeaths), new CMortalRegistry(nRegistryDeaths));
    auto* const pLogFile = m_pmintf->m_pLogFile;
    auto* const pRegistryNew = new CLogRegistryPlain;
    m_services.setLogger(nullptr, pRegistryNew);
    EXPECT_EQ(0, nLogDeaths);
    EXPECT_EQ(1, nRegistryDeaths);
    EXPECT_EQ(pLogFile, m_pmintf->m_pLogFile);
    EXPECT_EQ(pRegistryNew, m_pmintf->m_pLogFileRegistry);
    m_services.setLogger(new CLogCapture(m_pLog), nullptr);
    EXPECT_EQ(1, nLogDeaths);
}

TEST_F(ServicesImpl, SetLoggerWithNothingKeepsBoth)
{
    auto* const pLogFile = m_pmintf->m_pLogFile;
    auto* const pRegistry = m_pmintf->m_pLogFileRegistry;
    m_services.setLogger(nullptr, nullptr);
    EXPECT_EQ(pLogFile, m_pmintf->m_pLogFile);
    EXPECT_EQ(pRegistry, m_pmintf->m_pLogFileRegistry);
    EXPECT_EQ(std::vector<CLogLine>(), lines());
}

TEST_F(ServicesImpl, SetLoggerWithTheObjectsAlreadyHeldKeepsThem)
{
    int nLogDeaths = 0;
    int nRegistryDeaths = 0;
    auto* const pLogFile = new CMortalLog(nLogDeaths);
    auto* const pRegistry = new CMortalRegistry(nRegistryDeaths);
    m_services.setLogger(pLogFile, pRegistry);
    m_services.setLogger(pLogFile, pRegistry);
    EXPECT_EQ(0, nLogDeaths);
    EXPECT_EQ(0, nRegistryDeaths);
    m_services.setLogger(new CLogCapture(m_pLog), new CLogRegistryPlain);
    EXPECT_EQ(1, nLogDeaths);
    EXPECT_EQ(1, nRegistryDeaths);
}

TEST_F(ServicesImpl, SetLoggerWorksWhereNoneIsHeld)
{
    m_pmintf->replaceLogFile(nullptr);
    m_pmintf->replaceLogFileRegistry(nullptr);
    EXPECT_EQ(0, m_services.setMinimumSilenceDuration(1)) << "no log, no line, no harm";
    m_services.setLogger(new CLogCapture(m_pLog), new CLogRegistryPlain);
    m_services.setMinimumSilenceDuration(1);
    EXPECT_EQ(1u, lines().size());
}

TEST_F(ServicesImpl, InterfaceDeletesTheLoggerItWasGiven)
{
    int nLogDeaths = 0;
    int nRegistryDeaths = 0;
    m_services.setLogger(new CMortalLog(nLogDeaths), new CMortalRegistry(nRegistryDeaths));
    m_pmintf->m_nConnectID = -1;
    m_pmintf->finalize();
    EXPECT_EQ(1, nLogDeaths);
    EXPECT_EQ(1, nRegistryDeaths);
}

TEST_F(ServicesImpl, MinimumSilenceDurationIsALineThatEndsInALiteralD)
{
    EXPECT_EQ(0, m_services.setMinimumSilenceDuration(500));
    EXPECT_EQ((std::vector<CLogLine>{operationLine("CZelMediaServicesImpl::setMinimumSilenceDuration d")}), lines());
    EXPECT_TRUE(takeRequests().empty());
}

TEST_F(ServicesImpl, OpenPhraseFileAsksTheDriverAndGivesTheLibrarysId)
{
    unsigned long ulFileID = ~0UL;
    respondNext(MIRSP_OPENFILE, 501);
    EXPECT_EQ(0, m_services.openPhraseFile(const_cast<char*>("/p/numbers.ul"), &ulFileID));
    EXPECT_EQ(1u, ulFileID);
    const auto vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_OPENFILE, vRequests[0].s_micmd);
    EXPECT_STREQ("/p/numbers.ul", vRequests[0].openFile.szFileName);
    EXPECT_EQ(operationLine("CZelMediaServicesImpl::openPhraseFile /p/numbers.ul"), lines().front());
    EXPECT_EQ(operationLine("<<<CMIntf::openFile /p/numbers.ul, id 1"), lines().back());
}

TEST_F(ServicesImpl, PhraseFileIdIsIssuedAlsoWhenTheDriverRefuses)
{
    unsigned long ulFileID = ~0UL;
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_services.openPhraseFile(const_cast<char*>("/p/a.ul"), &ulFileID));
    EXPECT_EQ(1u, ulFileID) << "all of it, also where unsigned long has 64 bits";
    disconnect();
    ulFileID = ~0UL;
    EXPECT_EQ(MCS_NOTCONNECTED, m_services.openPhraseFile(const_cast<char*>("/p/b.ul"), &ulFileID));
    EXPECT_EQ(2u, ulFileID);
}

TEST_F(ServicesImpl, ClosePhraseFileClosesAtTheDriverAfterTheLastUse)
{
    unsigned long ulFileID = 0;
    respondNext(MIRSP_OPENFILE, 501);
    m_services.openPhraseFile(const_cast<char*>("/p/a.ul"), &ulFileID);
    m_services.openPhraseFile(const_cast<char*>("/p/a.ul"), &ulFileID);
    EXPECT_EQ(0, m_services.closePhraseFile(ulFileID));
    takeRequests();
    m_pLog->clear();
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_services.closePhraseFile(ulFileID));
    const auto vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_CLOSEFILE, vRequests[0].s_micmd);
    EXPECT_EQ(501, vRequests[0].closeFile.nFileID);
    ASSERT_LE(2u, lines().size());
    EXPECT_EQ(operationLine("CZelMediaServicesImpl::closePhraseFile"), lines()[0]);
    EXPECT_EQ(closeFileLine(1), lines()[1]);
}

TEST_F(ServicesImpl, ClosePhraseFileOfAnUnknownIdSucceedsWithoutARequest)
{
    EXPECT_EQ(0, m_services.closePhraseFile(0xFFFFFFFFUL));
    EXPECT_TRUE(takeRequests().empty());
    EXPECT_EQ((std::vector<CLogLine>{operationLine("CZelMediaServicesImpl::closePhraseFile"), closeFileLine(-1)}),
              lines());
}

TEST_F(ServicesImpl, DumpWritesItsLineThenTheStateThenAsksTheDriver)
{
    respondNext(MIRSP_STATUS, MISTATUS_FAILED);
    EXPECT_EQ(MCS_REFUSED, m_services.dump());
    ASSERT_LE(2u, lines().size());
    EXPECT_EQ(operationLine("CZelMediaServicesImpl::dump()"), lines()[0]);
    EXPECT_EQ("-- m_mapClipFileByID", lines()[1].strText);
    const auto vRequests = takeRequests();
    ASSERT_EQ(1u, vRequests.size());
    EXPECT_EQ(MICMD_DUMP, vRequests[0].s_micmd);
}
