// Our registrations at registrars: made, refreshed, tried again, taken back.
#include "Registrations.h"

#include "LegText.h"

#include <spdlog/spdlog.h>

#include <algorithm>

using std::chrono::seconds;

namespace
{
constexpr unsigned s_uFirstRetry = 5;
constexpr unsigned s_uLastRetry = 300;
} // namespace

CRegistration::CRegistration(CLoop& loop, CSipStack& stack, const CTrunk& trunk)
    : m_stack(stack), m_trunk(trunk), m_timer(loop), m_uExpires(trunk.m_uExpires)
{
}

CRegistration::~CRegistration()
{
    if (m_pSequence)
        m_pSequence->setHandler(nullptr);
}

void CRegistration::start()
{
    CSipDialSettings settings;
    settings.m_strFrom = m_trunk.m_strFrom;
    settings.m_strTo = m_trunk.m_strRegistrar.empty() ? m_trunk.m_strProxy : m_trunk.m_strRegistrar;
    settings.m_strUser = userOf(m_trunk.m_strFrom);
    settings.m_strProxy = m_trunk.m_strProxy;
    m_pSequence = m_stack.createSequence(settings);
    if (!m_pSequence)
    {
        spdlog::error("trunk {}: the stack does not take its addresses", m_trunk.m_strName);
        return;
    }
    m_pSequence->setHandler(this);
    m_pSequence->authenticateAs(m_trunk.m_credentials);
    send(m_uExpires);
}

void CRegistration::send(unsigned uExpires)
{
    if (m_pSequence && m_pSequence->request("REGISTER", {{{"Expires", std::to_string(uExpires)}}, {}, {}}) == 0)
        failed("it cannot be sent");
}

void CRegistration::takeBack()
{
    m_timer.stop();
    if (m_bRegistered)
        send(0);
    m_bRegistered = false;
    if (m_pSequence)
        m_pSequence->setHandler(nullptr);
}

void CRegistration::onResponse(uint64_t, const CSipMessage& message)
{
    const int nStatus = message.m_nStatus;
    if (nStatus < 200)
        return;
    if (nStatus == 423 && message.m_uMinimumExpires > m_uExpires)
    {
        m_uExpires = message.m_uMinimumExpires;
        send(m_uExpires);
        return;
    }
    if (nStatus >= 300)
    {
        failed(std::to_string(nStatus) + " " + message.m_strReason);
        return;
    }
    if (!m_bRegistered)
        spdlog::info("trunk {}: registered", m_trunk.m_strName);
    m_bRegistered = true;
    m_uFailures = 0;
    const unsigned uGranted = message.m_uExpires > 0 ? std::min(message.m_uExpires, m_uExpires) : m_uExpires;
    m_timer.start(seconds(std::max(uGranted / 2, 1U)), [this] { send(m_uExpires); });
}

void CRegistration::failed(const std::string& strWhy)
{
    const unsigned uWait = std::min(s_uFirstRetry << std::min(m_uFailures++, 6U), s_uLastRetry);
    m_bRegistered = false;
    spdlog::warn("trunk {}: not registered: {}; again in {} s", m_trunk.m_strName, strWhy, uWait);
    m_timer.start(seconds(uWait), [this] { send(m_uExpires); });
}

void CRegistrations::start(CLoop& loop, CSipStack& stack, const CPolicy& policy)
{
    takeBack();
    m_vRegistrations.clear();
    for (const CTrunk& trunk : policy.m_vTrunks)
        if (trunk.m_bRegister)
        {
            m_vRegistrations.push_back(std::make_unique<CRegistration>(loop, stack, trunk));
            m_vRegistrations.back()->start();
        }
}

void CRegistrations::takeBack()
{
    for (const auto& pRegistration : m_vRegistrations)
        pRegistration->takeBack();
}
