// Runs operations on the library, and acts the script out at its system calls.
#include "SimLibrary.h"
#include "PlatformSeams.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

// Counts commands and hands on alarms; formats and keeps no line.
class CSimLibrary::CLog : public OrvLogLib::CLogFile
{
public:
    explicit CLog(CSimLibrary& library) : CLogFile("Simulation", nullptr, false, false, false), m_library(library)
    {
        setTraceMask(library.m_bTraced ? unsigned{TRACE_INFO} : 0);
    }

    int LogStringArgListX(OrvLogLib::LogLib_Priority, const char* pszFormat, const char*, va_list) override
    {
        static const char MADE[] = "(Info) CCommand::CCommand";
        static const char DESTROYED[] = "(Info) CCommand::~CCommand";
        if (strncmp(pszFormat, MADE, sizeof(MADE) - 1) == 0)
            ++m_library.m_nAlive;
        else if (strncmp(pszFormat, DESTROYED, sizeof(DESTROYED) - 1) == 0)
            --m_library.m_nAlive;
        return 0;
    }

    long ReportEventToWIN32Log(long, unsigned short, unsigned long, const char**, void*) override
    {
        m_library.onAlarm();
        return 1;
    }

private:
    CSimLibrary& m_library;
};

CSimLibrary::CSimLibrary(uint64_t ullTick, bool bTraced) : m_bTraced(bTraced)
{
    seams::setThreads(seams::Threads::Pretend);
    seams::freezeTick(ullTick);
    if (mkfifo(MI_REQUEST_PIPE, 0666) != 0 && errno != EEXIST)
        throw std::runtime_error(std::string("no request pipe: ") + strerror(errno));
    m_pmintf = new CMIntf;
    m_pmintf->m_bEventThreadRunning = 0; // so that finalize waits for nobody
    m_pmintf->replaceLogFile(new CLog(*this));
    storeUnlocked(g_pmintf, m_pmintf);
    m_pCompare = std::make_unique<CRulesCompare>(
        *m_pmintf,
        [this](int nHandler) -> const CMIntfCompletionHandler* {
            return nHandler == CSimModel::HANDLER ? this : nullptr;
        },
        [this](int nObject) { return m_vObjects[static_cast<size_t>(nObject)].get(); });
    for (int n = 0; n < CSimModel::OBJECTS; ++n)
    {
        m_vObjects.push_back(std::make_unique<CZelMediaStreamImpl>());
        m_vObjects.back()->m_nStreamID = -1; // its destructor has nothing to close
    }
}

CSimLibrary::~CSimLibrary()
{
    if (m_pmintf)
    {
        m_pmintf->m_nConnectID = -1; // nobody would answer
        destroyInterface();
    }
    storeUnlocked(g_pmintf, nullptr);
    m_vObjects.clear();
    if (m_nDriver != -1)
        close(m_nDriver);
    seams::realTick();
    seams::setThreads(seams::Threads::Real);
}

std::string CSimLibrary::run(const CSimOperation& operation, const CSimScript& script, const CSimResult& expected,
                             const CSimModel& model)
{
    begin(script);
    const CSimResult result = execute(operation);
    CSimSystem::set(nullptr);
    expectEqual(expected.nStatus, result.nStatus, "status");
    expectEqual(expected.nValue, result.nValue, "value");
    expectEqual(static_cast<int64_t>(model.m_ullTick), static_cast<int64_t>(CPortable::GetTickCountULL()), "clock");
    const std::string strDifference = m_pCompare->compare(model);
    if (!strDifference.empty())
        fault(strDifference);
    if (m_bTraced)
        expectEqual(static_cast<int64_t>(model.m_vCommands.size()), m_nAlive, "commands alive");
    return end();
}

std::string CSimLibrary::finalize(const CSimScript& script)
{
    begin(script);
    destroyInterface();
    CSimSystem::set(nullptr);
    expectEqual(0, m_nAlive, "commands alive at the end");
    return end();
}

void CSimLibrary::destroyInterface()
{
    for (const auto& entry : m_pmintf->m_mapClipFileByID)
        delete entry.second; // the interface leaves them
    m_pmintf->m_mapClipFileByID.clear();
    delete m_pmintf;
    m_pmintf = nullptr;
}

void CSimLibrary::begin(const CSimScript& script)
{
    m_strFault.clear();
    m_pScript = &script;
    m_nNextAct = 0;
    CSimSystem::set(this);
}

std::string CSimLibrary::end()
{
    CSimSystem::set(nullptr);
    if (m_strFault.empty() && m_nNextAct < m_pScript->size())
        fault("missing: " + toString((*m_pScript)[m_nNextAct]));
    return m_strFault;
}

void CSimLibrary::fault(const std::string& strText)
{
    if (m_strFault.empty())
        m_strFault = strText;
}

void CSimLibrary::expectEqual(int64_t llExpected, int64_t llFound, const char* pszWhat)
{
    if (llExpected != llFound)
        fault(std::string(pszWhat) + ": expected " + std::to_string(llExpected) + ", found " + std::to_string(llFound));
}

// The act that comes next, if it is of this kind; after a fault nothing comes any more.
const CSimAct* CSimLibrary::nextAct(CSimAct::Kind kind, const char* pszDone)
{
    if (m_strFault.empty() && m_nNextAct < m_pScript->size() && (*m_pScript)[m_nNextAct].kind == kind)
        return &(*m_pScript)[m_nNextAct++];
    fault(std::string(pszDone) + " instead of " +
          (m_nNextAct < m_pScript->size() ? toString((*m_pScript)[m_nNextAct]) : "nothing"));
    return nullptr;
}

ssize_t CSimLibrary::onWrite(int nDescriptor, const void* pBytes, size_t nBytes)
{
    const bool bEvent = nDescriptor == m_pmintf->m_npipeEvt;
    const CSimAct* const pAct =
        nextAct(bEvent ? CSimAct::WriteEvent : CSimAct::WriteRequest, bEvent ? "an event" : "a request");
    if (!pAct)
    {
        errno = EBADF;
        return -1;
    }
    if (!bEvent)
    {
        expectEqual(m_pmintf->m_npipeReq, nDescriptor, "descriptor of a request");
        if (nBytes != sizeof(pAct->request) || memcmp(pBytes, &pAct->request, sizeof(pAct->request)) != 0)
            fault("another request than " + toString(*pAct));
    }
    else if (nBytes != sizeof(pAct->evt) ||
             memcmp(pBytes, &pAct->evt, pAct->evt.s_mievt == MIEVT_DONE ? nBytes : sizeof(pAct->evt.s_mievt)) != 0)
        fault("another event than " + toString(*pAct));
    errno = pAct->nError;
    return pAct->nOutcome;
}

ssize_t CSimLibrary::onRead(int nDescriptor, void* pBytes, size_t nBytes)
{
    const CSimAct* const pAct = nextAct(CSimAct::ReadResponse, "a read");
    if (!pAct)
        return 0;
    expectEqual(m_pmintf->m_npipeRsp, nDescriptor, "descriptor of a response");
    expectEqual(sizeof(pAct->rsp), static_cast<int64_t>(nBytes), "size of a response");
    if (pAct->nOutcome > 0)
        memcpy(pBytes, &pAct->rsp, static_cast<size_t>(pAct->nOutcome));
    errno = pAct->nError;
    return pAct->nOutcome;
}

int CSimLibrary::onWait()
{
    if (m_pmintf->m_npipeReq == -1)
        return 0; // a look at what a lost connection left unread: nothing
    const CSimAct* const pAct = nextAct(CSimAct::WaitResponse, "a wait");
    if (!pAct)
        return 0;
    seams::advanceTick(pAct->ullAdvance);
    errno = pAct->nError;
    return static_cast<int>(pAct->nOutcome);
}

void CSimLibrary::onAlarm()
{
    nextAct(CSimAct::Alarm, "an alarm");
}

void CSimLibrary::OnCMIntfCompletion(int nStreamID, MCSTATUS mcstatus,
                                     CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON reason)
{
    const CSimAct* const pAct = nextAct(CSimAct::Report, "a completion");
    if (!pAct)
        return;
    expectEqual(pAct->nStreamID, nStreamID, "stream of a completion");
    expectEqual(pAct->nStatus, mcstatus, "status of a completion");
    expectEqual(pAct->nReason, reason, "reason of a completion");
    if (!pAct->pCallBack)
        return;
    const CSimResult result = execute(pAct->pCallBack->operation);
    expectEqual(pAct->pCallBack->result.nStatus, result.nStatus, "status in a handler");
    expectEqual(pAct->pCallBack->result.nValue, result.nValue, "value in a handler");
}

CSimResult CSimLibrary::execute(const CSimOperation& operation)
{
    const int nStreamID = operation.nStreamID;
    CMIntfCompletionHandler* const pHandler = operation.bHandler ? this : nullptr;
    std::string strName = operation.strName;
    int nID = -1;
    switch (operation.kind)
    {
    case CSimOperation::Send: return send(operation);
    case CSimOperation::SetDone: return {m_pmintf->setDone(nStreamID, pHandler), 0};
    case CSimOperation::Cancel:
        return {m_pmintf->cancel(nStreamID, static_cast<unsigned long>(operation.nArgument)), 0};
    case CSimOperation::OpenStream: return openStream(operation);
    case CSimOperation::CloseStream: return {m_pmintf->closeStream(nStreamID), 0};
    case CSimOperation::OpenFile:
    {
        const int nStatus = m_pmintf->openFile(strName.data(), &nID);
        return {nStatus, nID};
    }
    case CSimOperation::CloseFile: return {m_pmintf->closeFile(operation.nArgument), 0};
    case CSimOperation::MapFile: return {0, m_pmintf->mapFileIDToCMIntfFileID(operation.nArgument)};
    case CSimOperation::Reopen: m_pmintf->reopenClipFiles(); break;
    case CSimOperation::Ping: return {m_pmintf->ping(), 0};
    case CSimOperation::ClearActive: m_pmintf->clearActiveCommands(operation.nArgument); break;
    case CSimOperation::ClearQueues: m_pmintf->clearCommandQueues(); break;
    case CSimOperation::ClearPlay: m_pmintf->clearCommandQueuePlay(nStreamID, 0); break;
    case CSimOperation::ClearRecord: m_pmintf->clearCommandQueueRecord(nStreamID); break;
    case CSimOperation::DriverEvent: break;
    case CSimOperation::DeliverEvent:
        if (operation.evt.s_mievt == MIEVT_DONE)
            m_pmintf->doneEventPass(operation.evt);
        break;
    case CSimOperation::Idle: idle(operation); break;
    case CSimOperation::LoseDriver: loseDriver(); break;
    }
    return {};
}

CSimResult CSimLibrary::send(const CSimOperation& operation)
{
    structMICMD request = operation.request;
    structMIRSP rsp;
    const int nStatus =
        m_pmintf->sendCommand(operation.nStreamID, &request, &rsp, operation.nTimeout,
                              operation.bHandler ? this : nullptr, operation.nNoDone, operation.bUsePlayQueue);
    if (nStatus == MCS_OK && (request.s_micmd == MICMD_PLAYCLIP || request.s_micmd == MICMD_PLAYFILE))
    {
        const auto it = m_pmintf->m_mapStreamByStreamID.find(operation.nStreamID);
        if (it != m_pmintf->m_mapStreamByStreamID.end())
            it->second->m_ullPlayStartTick = CPortable::GetTickCountULL();
    }
    return {nStatus, nStatus == MCS_OK ? rsp.s_nResult : 0};
}

CSimResult CSimLibrary::openStream(const CSimOperation& operation)
{
    std::string strName = operation.strName;
    int nStreamID = 0;
    CZelMediaStreamImpl* const pObject = m_vObjects[static_cast<size_t>(operation.nObject)].get();
    const int nStatus =
        m_pmintf->openStream(pObject, &nStreamID, strName.data(), static_cast<unsigned long>(operation.nArgument));
    if (nStatus == MCS_OK)
        pObject->m_bInitialized = 1;
    return {nStatus, nStreamID};
}

void CSimLibrary::idle(const CSimOperation& operation)
{
    seams::advanceTick(operation.ullAdvance);
    if (operation.bDriverThere && m_nDriver == -1)
        m_nDriver = open(MI_REQUEST_PIPE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (!operation.bDriverThere && m_nDriver != -1)
    {
        close(m_nDriver);
        m_nDriver = -1;
    }
    m_pmintf->idlePass();
}

void CSimLibrary::loseDriver()
{
    close(m_pmintf->m_npipeReq);
    m_pmintf->m_npipeReq = -1;
    m_pmintf->m_nConnectID = -1;
}
