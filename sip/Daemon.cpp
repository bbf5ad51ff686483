// The signalling daemon: puts stack, calls and sockets together, and ends them in order.
#include "Daemon.h"

#include "Log.h"
#include "PolicyFile.h"

#include <spdlog/spdlog.h>

#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <system_error>

namespace
{
constexpr std::chrono::seconds s_endLimit(5);

int signalDescriptor()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int nSignal : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, nSignal);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    const int nDescriptor = ::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    if (nDescriptor < 0)
        throw std::system_error(errno, std::generic_category(), "signals");
    return nDescriptor;
}

std::vector<CSdpCodec> defaultCodecs()
{
    return {{"PCMU", 0, 8000, "", ""}, {"PCMA", 8, 8000, "", ""}};
}
} // namespace

CDaemon::CDaemon(const COptions& options) : m_options(options), m_nSignals(signalDescriptor()), m_endTimer(m_loop) {}

CDaemon::~CDaemon()
{
    m_loop.unwatch(m_nSignals);
    ::close(m_nSignals);
    // Dialogs before the stack that they are on.
    m_registrations.clear();
    m_pApplications.reset();
    m_pCalls.reset();
    m_pStack.reset();
}

bool CDaemon::loadPolicy(CPolicy& policy, std::string& strError) const
{
    policy.m_negotiation.m_vCodecs = defaultCodecs();
    policy.m_bDialAnywhere = true;
    if (!m_options.m_strConfig.empty())
    {
        policy.m_bDialAnywhere = false;
        if (!readPolicyFile(m_options.m_strConfig, policy, strError))
            return false;
    }
    for (const std::string& strAllow : m_options.m_vstrAllow)
        if (!policy.m_allowed.add(strAllow, strError))
            return false;
    if (m_options.m_vstrAllow.empty() && m_options.m_strConfig.empty())
        policy.m_allowed = CAddressList::ofThisMachine();
    return true;
}

bool CDaemon::run(std::string& strError)
{
    CPolicy policy;
    if (!loadPolicy(policy, strError))
        return false;
    const CAddressList allowed = policy.everybody();
    m_pCalls = std::make_unique<CCalls>(
        m_loop, std::move(policy),
        CCalls::CSettings{m_options.m_strDriver, m_options.m_strMediaAddress, m_options.m_strJournal});
    m_pStack = CSipStack::create(m_loop, *m_pCalls, "ZelMedia/" ZELMEDIA_VERSION);
    if (!m_options.m_strTrace.empty() && !m_pStack->trace(m_options.m_strTrace, strError))
        return false;
    for (const CSipListener& listener : m_options.m_vListeners)
        if (!m_pStack->listen(listener, m_options.m_strCertificates, m_options.m_bVerify, strError))
            return false;
    m_pStack->allow(allowed);
    m_pApplications = std::make_unique<CApplications>(m_loop, *m_pCalls, m_options.m_strSocket);
    if (!m_pApplications->open(strError))
        return false;
    m_loop.watch(m_nSignals, POLLIN, [this](short) { onSignal(); });
    if (!m_pCalls->start(*m_pStack, *m_pApplications, strError))
        return false;
    m_registrations.start(m_loop, *m_pStack, m_pCalls->policy());
    std::puts("zelmedia-sip: ready");
    std::fflush(stdout);
    ::sd_notify(0, "READY=1");
    m_loop.run();
    return true;
}

void CDaemon::onSignal()
{
    signalfd_siginfo info = {};
    while (::read(m_nSignals, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info)))
        if (info.ssi_signo == SIGHUP)
            reload();
        else
            end();
}

void CDaemon::reload()
{
    std::string strError;
    CPolicy policy;
    if (!setUpLog(m_options, strError))
        spdlog::error("{}; the log goes on in the old file", strError);
    if (!loadPolicy(policy, strError))
    {
        spdlog::error("{}; the policy stays as it was", strError);
        return;
    }
    m_pStack->allow(policy.everybody());
    m_pCalls->setPolicy(std::move(policy));
    m_registrations.start(m_loop, *m_pStack, m_pCalls->policy());
    spdlog::info("the policy was read anew");
}

void CDaemon::end()
{
    if (m_bEnding)
        return;
    m_bEnding = true;
    ::sd_notify(0, "STOPPING=1");
    spdlog::info("ends");
    // BYEs may be lost; the peers' own timers end those calls.
    m_endTimer.start(s_endLimit, [this] { m_loop.stop(); });
    m_registrations.takeBack();
    m_pCalls->shutDown([this] { m_loop.stop(); });
}
