// What applications ask of CZelCallServices, and the thread behind it.
#include "ZelCallServicesImpl.h"

#include "JsonText.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <random>
#include <system_error>
#include <utility>

namespace
{
constexpr std::chrono::seconds DIAL_LIMIT(10);
constexpr size_t MAX_REQUEST = 60000;    // the server takes 65,536 bytes
constexpr size_t MAX_UNSENT = 1U << 20U; // of a server that does not read
constexpr std::chrono::seconds ANSWER_LIMIT(30);

std::string newInstance()
{
    std::random_device random;
    return std::to_string(::getpid()) + '-' + std::to_string(random()) + '-' + std::to_string(random());
}

CSocketFd newWakeFd()
{
    CSocketFd fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!fd.isOpen())
        throw std::system_error(errno, std::generic_category(), "eventfd");
    return fd;
}

// The signals of the application are none of the event thread's.
class CSignalsBlocked
{
public:
    CSignalsBlocked()
    {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~CSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    CSignalsBlocked(const CSignalsBlocked&) = delete;
    CSignalsBlocked& operator=(const CSignalsBlocked&) = delete;

private:
    sigset_t m_before;
};
} // namespace

CZelCallServicesImpl::CZelCallServicesImpl(CZelCallHandler* pHandler, std::string strRoute, std::string strSocket)
    : m_handler(pHandler == nullptr ? m_noHandler : *pHandler), m_strRoute(std::move(strRoute)),
      m_strSocket(std::move(strSocket)), m_strInstance(newInstance()), m_fdWake(newWakeFd())
{
}

CZelCallServicesImpl::~CZelCallServicesImpl() = default;

void CZelCallServicesImpl::start(const std::shared_ptr<CZelCallServicesImpl>& pImpl)
{
    const CSignalsBlocked blocked;
    const std::lock_guard<std::mutex> hold(pImpl->m_mutex);
    pImpl->m_thread = std::thread([pImpl]() noexcept { pImpl->run(); });
}

void CZelCallServicesImpl::stop()
{
    std::thread thread;
    {
        const std::lock_guard<std::mutex> hold(m_mutex);
        m_bStop = true;
        thread = std::move(m_thread);
    }
    wake();
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else
        thread.join();
}

CCSTATUS CZelCallServicesImpl::command(ECallCommand command, const CZelCallInfo& call,
                                       const nlohmann::ordered_json& fields, unsigned long* pulRequest)
{
    const std::lock_guard<std::mutex> hold(m_mutex);
    return sendCommand(command, CLegKey(call.m_strCallID, call.m_ulLegID), fields, false, pulRequest);
}

CCSTATUS CZelCallServicesImpl::commandWithOther(ECallCommand command, const CZelCallInfo& call,
                                                const CZelCallInfo& other, unsigned long* pulRequest)
{
    const CLegKey otherKey(other.m_strCallID, other.m_ulLegID);
    const CLegKey key(call.m_strCallID, call.m_ulLegID);
    const std::lock_guard<std::mutex> hold(m_mutex);
    const CCallLeg* pOther = find(otherKey);
    if (pOther == nullptr || find(key) == nullptr)
        return CCS_NOSUCHCALL;
    if (key == otherKey)
        return CCS_BADARGUMENT;
    if (!pOther->allows(command))
        return CCS_WRONGSTATE;
    return sendCommand(command, key, {{"other_call", otherKey.first}, {"other_leg", otherKey.second}}, true,
                       pulRequest);
}

CCSTATUS CZelCallServicesImpl::collectDigits(const CZelCallInfo& call, int nMax, const std::string& strTerminators,
                                             unsigned long ulFirstMs, unsigned long ulNextMs, unsigned long* pulRequest)
{
    if (nMax < 1 || nMax > 64 || strTerminators.find_first_not_of("0123456789*#ABCD") != std::string::npos)
        return CCS_BADARGUMENT;
    nlohmann::ordered_json fields = {{"max", nMax}};
    if (!strTerminators.empty())
        fields["terminators"] = strTerminators;
    if (ulFirstMs != 0)
        fields["first_ms"] = ulFirstMs;
    if (ulNextMs != 0)
        fields["next_ms"] = ulNextMs;
    return command(ECallCommand::CollectDigits, call, fields, pulRequest);
}

CCSTATUS CZelCallServicesImpl::dial(const std::string& strUri, const std::string& strFrom, CZelCallInfo* pCall)
{
    const auto pDialling = std::make_shared<CDialling>();
    pDialling->m_call.m_strFrom = strFrom;
    pDialling->m_call.m_strTo = strUri;
    pDialling->m_call.m_eState = CCCS_DIALING;
    nlohmann::ordered_json request = {{"request", "dial"}, {"uri", strUri}};
    if (!strFrom.empty())
        request["from"] = strFrom;
    std::unique_lock<std::mutex> hold(m_mutex);
    CPending pending{EPending::Dial};
    pending.m_pDialling = pDialling;
    const CCSTATUS status = send(std::move(request), std::move(pending), nullptr);
    if (status != CCS_OK)
        return status;
    awaitDialled(*pDialling, hold);
    pDialling->m_bDone = true; // an answer that comes now is too late
    if (pDialling->m_status == CCS_OK && pCall != nullptr)
        *pCall = pDialling->m_call;
    return pDialling->m_status;
}

void CZelCallServicesImpl::awaitDialled(CDialling& dialling, std::unique_lock<std::mutex>& hold)
{
    const Clock::time_point end = Clock::now() + DIAL_LIMIT;
    if (m_thread.get_id() != std::this_thread::get_id())
    {
        m_dialled.wait_until(hold, end, [&] { return dialling.m_bDone || m_bStop; });
        return;
    }
    // Nobody else reads here; what comes before the answer is for after the callback.
    while (!handleDialAnswer(dialling) && !m_strLost && !m_bStop && Clock::now() < end)
    {
        pollfd wait = {m_client.descriptor(), static_cast<short>(m_client.wantedEvents()), 0};
        hold.unlock();
        ::poll(&wait, 1, 100);
        hold.lock();
        readMessages();
    }
}

bool CZelCallServicesImpl::handleDialAnswer(const CDialling& dialling)
{
    for (auto it = m_vMessages.begin(); it != m_vMessages.end(); ++it)
    {
        const auto itPending = m_mapPendingByID.find(numberOf(*it, "id"));
        if (it->contains("ok") && itPending != m_mapPendingByID.end() &&
            itPending->second.m_pDialling.get() == &dialling)
        {
            const CPending pending = itPending->second;
            m_mapPendingByID.erase(itPending);
            onDialAnswered(pending, *it);
            m_vMessages.erase(it);
            return true;
        }
    }
    return false;
}

CCSTATUS CZelCallServicesImpl::claim(const std::string& strCallID, unsigned long* pulRequest)
{
    if (strCallID.empty())
        return CCS_BADARGUMENT;
    const std::lock_guard<std::mutex> hold(m_mutex);
    CPending pending{EPending::Claim};
    pending.m_key.first = strCallID;
    return send({{"request", "claim"}, {"call", strCallID}}, std::move(pending), pulRequest);
}

std::vector<CZelCallInfo> CZelCallServicesImpl::calls() const
{
    const std::lock_guard<std::mutex> hold(m_mutex);
    std::vector<CZelCallInfo> vCalls;
    vCalls.reserve(m_mapLegs.size());
    for (const auto& [key, leg] : m_mapLegs)
        vCalls.push_back(leg.info());
    return vCalls;
}

CCSTATUS CZelCallServicesImpl::sendCommand(ECallCommand command, const CLegKey& key, nlohmann::ordered_json fields,
                                           bool bOtherLeg, unsigned long* pulRequest)
{
    CCallLeg* pLeg = find(key);
    if (pLeg == nullptr)
        return CCS_NOSUCHCALL;
    if (!pLeg->allows(command))
        return CCS_WRONGSTATE;
    if (command == ECallCommand::HangUp && !m_bRegistered)
    {
        const unsigned long ulRequest = nextRequest();
        pLeg->asked(command, ulRequest); // and sent when the connection is there again
        if (pulRequest != nullptr)
            *pulRequest = ulRequest;
        return CCS_OK;
    }
    nlohmann::ordered_json request = {{"request", requestNameOf(command)}, {"call", key.first}, {"leg", key.second}};
    if (fields.is_object())
        request.update(fields);
    const CCSTATUS status = send(std::move(request), {EPending::Command, key, command, bOtherLeg}, pulRequest);
    if (status == CCS_OK)
        pLeg->asked(command, m_ulLastRequest);
    return status;
}

CCSTATUS CZelCallServicesImpl::send(nlohmann::ordered_json request, CPending pending, unsigned long* pulRequest)
{
    if (m_bStop || !m_client.isConnected() || (!m_bRegistered && pending.m_ePending != EPending::Register) ||
        m_client.waiting() > MAX_UNSENT)
        return CCS_NOTCONNECTED;
    if (jsonLine(request).size() > MAX_REQUEST)
        return CCS_BADARGUMENT;
    if (pending.m_ulRequest == 0)
        pending.m_ulRequest = nextRequest();
    pending.m_due = Clock::now() + ANSWER_LIMIT;
    if (pulRequest != nullptr)
        *pulRequest = pending.m_ulRequest;
    m_mapPendingByID[m_client.request(std::move(request))] = std::move(pending);
    if (m_client.waiting() > 0)
        wake();
    return CCS_OK;
}

unsigned long CZelCallServicesImpl::nextRequest()
{
    m_ulLastRequest += m_ulLastRequest + 1 == 0 ? 2 : 1;
    return m_ulLastRequest;
}

CCallLeg* CZelCallServicesImpl::find(const CLegKey& key)
{
    const auto it = m_mapLegs.find(key);
    return it == m_mapLegs.end() ? nullptr : &it->second;
}

void CZelCallServicesImpl::wake() const
{
    const uint64_t ullOne = 1;
    const ssize_t nWritten = ::write(m_fdWake.get(), &ullOne, sizeof(ullOne));
    static_cast<void>(nWritten); // if it is full the thread wakes, too
}

void CZelCallServicesImpl::run()
{
    ::pthread_setname_np(::pthread_self(), "ZelCallEvents");
    for (;;)
    {
        waitForWork();
        handleAll();
        const std::lock_guard<std::mutex> hold(m_mutex);
        if (m_bStop)
            return;
    }
}

void CZelCallServicesImpl::waitForWork()
{
    pollfd waits[] = {{m_fdWake.get(), POLLIN, 0}, {-1, 0, 0}};
    std::unique_lock<std::mutex> hold(m_mutex);
    if (!m_client.isConnected() && !m_strLost && !m_bStop && Clock::now() >= m_nextTry)
        tryConnect();
    waits[1].fd = m_client.descriptor();
    waits[1].events = static_cast<short>(m_client.wantedEvents());
    const int nTimeoutMs = timeoutMs();
    hold.unlock();
    ::poll(waits, 2, nTimeoutMs);
    uint64_t ullCount = 0;
    const ssize_t nRead = ::read(m_fdWake.get(), &ullCount, sizeof(ullCount));
    static_cast<void>(nRead); // nothing, mostly
    hold.lock();
    if (m_client.isConnected())
        readMessages();
    checkOverdue();
}

void CZelCallServicesImpl::handleAll()
{
    for (;;)
    {
        Callbacks vCallbacks;
        {
            const std::lock_guard<std::mutex> hold(m_mutex);
            if (m_bStop || !handleNext(vCallbacks))
                return;
        }
        callBack(vCallbacks);
    }
}

void CZelCallServicesImpl::callBack(const std::vector<CallbackFunction>& vCallbacks)
{
    for (const CallbackFunction& callback : vCallbacks)
    {
        {
            const std::lock_guard<std::mutex> hold(m_mutex);
            if (m_bStop)
                return;
        }
        callback(m_handler);
    }
}

int CZelCallServicesImpl::timeoutMs() const
{
    if (m_strLost || m_bStop)
        return 1;
    auto next = Clock::now() + std::chrono::hours(1);
    if (!m_client.isConnected())
        next = m_nextTry;
    for (const auto& [ullID, pending] : m_mapPendingByID)
        next = std::min(next, pending.m_due);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}
