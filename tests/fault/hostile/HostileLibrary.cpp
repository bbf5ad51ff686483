#include "HostileLibrary.h"
#include "PlatformSeams.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

// One thread, which looks into guarded members without their locks.
#ifdef __clang__
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#pragma clang diagnostic ignored "-Wthread-safety-reference"
#endif

class CPipeWait;

namespace
{
CHostileLibrary* s_pLibrary = nullptr;

std::string toString(const std::vector<CPlannedReport>& vReports)
{
    std::string strText;
    for (const CPlannedReport& report : vReports)
    {
        strText += " {handler " + std::to_string(report.nHandler) + ", stream " + std::to_string(report.nStreamID) +
                   ", status " + std::to_string(report.nStatus) + ", reason " + std::to_string(report.nReason) + "}";
    }
    return strText;
}
} // namespace

// The names are the linker's.
extern "C"
{
    int __real__ZN9CPipeWait12waitReadableEv(CPipeWait* pThis);
    int __wrap__ZN9CPipeWait12waitReadableEv(CPipeWait* pThis);

    int __wrap__ZN9CPipeWait12waitReadableEv(CPipeWait* pThis)
    {
        const int nReady = s_pLibrary ? s_pLibrary->onWait() : -1;
        return nReady == -1 ? __real__ZN9CPipeWait12waitReadableEv(pThis) : nReady;
    }
}

class CHostileLibrary::CHandler : public CMIntfCompletionHandler
{
public:
    CHandler(std::vector<CPlannedReport>& vReports, int nHandler) : m_vReports(vReports), m_nHandler(nHandler) {}

    void OnCMIntfCompletion(int nStreamID, MCSTATUS mcstatus,
                            CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON reason) override
    {
        m_vReports.push_back({m_nHandler, nStreamID, mcstatus, reason});
    }

private:
    std::vector<CPlannedReport>& m_vReports;
    const int m_nHandler;
};

CHostileLibrary::CHostileLibrary(uint64_t ullTick)
{
    seams::setThreads(seams::Threads::Pretend);
    seams::freezeTick(ullTick);
    if (mkfifo(MI_REQUEST_PIPE, 0666) != 0 && errno != EEXIST)
        throw std::runtime_error(std::string("no request pipe: ") + strerror(errno));
    setDriver(true);
    m_pmintf = new CMIntf;
    m_pmintf->m_bEventThreadRunning = 0; // so that finalize waits for nobody
    m_pmintf->replaceLogFile(nullptr);
    storeUnlocked(g_pmintf, m_pmintf);
    m_pServices = std::make_unique<CZelMediaServicesImpl>(nullptr);
    for (int n = 0; n < HANDLERS; ++n)
        m_vHandlers.push_back(std::make_unique<CHandler>(m_vReports, n));
    m_pCompare = std::make_unique<CRulesCompare>(
        *m_pmintf, [this](int nHandler) { return handler(nHandler); },
        [this](int nObject) { return m_apObjects[nObject].get(); });
    s_pLibrary = this;
}

CHostileLibrary::~CHostileLibrary()
{
    s_pLibrary = nullptr;
    m_pmintf->m_nConnectID = -1; // nobody would answer
    for (auto& pObject : m_apObjects)
        pObject.reset();
    m_pServices.reset();
    for (const auto& entry : m_pmintf->m_mapClipFileByID)
        delete entry.second; // the interface leaves them
    m_pmintf->m_mapClipFileByID.clear();
    delete m_pmintf;
    storeUnlocked(g_pmintf, nullptr);
    setDriver(false);
    seams::realTick();
    seams::setThreads(seams::Threads::Real);
}

CMIntfCompletionHandler* CHostileLibrary::handler(int nHandler)
{
    return nHandler == -1 ? nullptr : m_vHandlers[static_cast<size_t>(nHandler)].get();
}

// The public object that has this one is only passed on.
int CHostileLibrary::openObject(int nObject)
{
    m_apObjects[nObject] = std::make_unique<CZelMediaStreamImpl>();
    auto* const pPublic = reinterpret_cast<CZelMediaStream*>(m_apObjects[nObject].get());
    return m_apObjects[nObject]->initialize(m_pServices.get(), pPublic, "call", 1UL);
}

void CHostileLibrary::setDriver(bool bThere)
{
    if (bThere && m_nDriver == -1)
        m_nDriver = open(MI_REQUEST_PIPE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (!bThere && m_nDriver != -1)
    {
        close(m_nDriver);
        m_nDriver = -1;
    }
}

void CHostileLibrary::dropConnection()
{
    if (m_pmintf->m_npipeReq != -1)
        close(m_pmintf->m_npipeReq);
    m_pmintf->m_npipeReq = -1;
    m_pmintf->m_nConnectID = -1;
}

void CHostileLibrary::writeResponses(const std::vector<uint8_t>& vBytes)
{
    if (!vBytes.empty() && write(m_pmintf->m_npipeRsp, vBytes.data(), vBytes.size()) != std::ssize(vBytes))
        setFault("the response pipe takes no more");
}

void CHostileLibrary::writeEvents(const std::vector<uint8_t>& vBytes)
{
    if (!vBytes.empty() && write(m_pmintf->m_npipeEvt, vBytes.data(), vBytes.size()) != std::ssize(vBytes))
        setFault("the event pipe takes no more");
}

void CHostileLibrary::emptyResponses()
{
    char acRest[4096];
    while (read(m_pmintf->m_npipeRsp, acRest, sizeof(acRest)) > 0)
    {
    }
}

void CHostileLibrary::readEvents()
{
    m_pmintf->eventThreadFunc();
    m_pmintf->m_bEventThreadStop = 0;
}

// A wait follows each request of the plan as often as the plan says. Any other one is the event
// thread's, which ends when its pipe is empty.
int CHostileLibrary::onWait()
{
    structMICMD request;
    while (m_nDriver != -1 && read(m_nDriver, &request, sizeof(request)) == static_cast<ssize_t>(sizeof(request)))
        startExchange(request);
    if (m_bExchange)
    {
        const CPlannedExchange& plan = (*m_pvPlan)[m_nNextExchange - 1];
        writeResponses(plan.vWaits[m_nNextWait++]);
        const bool bLast = m_nNextWait == plan.vWaits.size();
        m_bExchange = !bLast;
        return bLast && plan.bTimeOut ? 0 : -1;
    }
    int nBytes = 0;
    if (ioctl(m_pmintf->m_npipeEvt, FIONREAD, &nBytes) == 0 && nBytes > 0)
        return 1;
    m_pmintf->m_bEventThreadStop = 1;
    return 0;
}

void CHostileLibrary::startExchange(const structMICMD& request)
{
    if (m_bExchange)
        setFault("a request while another one waits");
    if (m_nNextExchange == m_pvPlan->size())
        return setFault("a request too many: " + std::string(MICMDToString(request.s_micmd)));
    const CPlannedExchange& plan = (*m_pvPlan)[m_nNextExchange++];
    expectEqual(plan.micmd, request.s_micmd, "command");
    expectEqual(plan.nSequenceNo, request.nSequenceNo, "number of a request");
    if (plan.micmd != MICMD_CONNECT)
        expectEqual(plan.nConnectID, request.nConnectID, "connection of a request");
    m_bExchange = true;
    m_nNextWait = 0;
}

void CHostileLibrary::begin(const CHostileModel& model)
{
    m_pvPlan = &model.m_vExchanges;
    m_nNextExchange = 0;
    m_bExchange = false;
    m_vReports.clear();
    seams::freezeTick(model.m_ullTick);
}

void CHostileLibrary::end(CHostileModel& model)
{
    expectEqual(std::ssize(model.m_vExchanges), static_cast<int64_t>(m_nNextExchange), "requests");
    if (m_bExchange)
        setFault("an answer that was not waited for");
    compareReports(model);
    const std::string strDifference = m_pCompare->compare(model);
    if (!strDifference.empty())
        setFault(strDifference);
    model.m_vExchanges.clear();
    model.m_vReports.clear();
    m_pvPlan = nullptr;
}

void CHostileLibrary::compareReports(const CHostileModel& model)
{
    if (model.m_vReports != m_vReports)
        setFault("completions: expected" + toString(model.m_vReports) + "; found" + toString(m_vReports));
}

void CHostileLibrary::expectEqual(int64_t llExpected, int64_t llFound, const char* pszWhat)
{
    if (llExpected != llFound)
        setFault(std::string(pszWhat) + ": expected " + std::to_string(llExpected) + ", found " +
                 std::to_string(llFound));
}

void CHostileLibrary::setFault(const std::string& strText)
{
    if (m_strFault.empty())
        m_strFault = strText;
}
