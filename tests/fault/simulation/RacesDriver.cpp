#include "RacesDriver.h"

using std::chrono::milliseconds;

CRacesDriver::CRacesDriver(uint64_t ullSeed) : m_random(ullSeed)
{
    m_driver.keepNoRequests();
    m_driver.onEveryRequest([this](const structMICMD& request) { return disturb(request); });
    m_driver.onTurn([this] { m_player.endWhatIsDue(); });
    m_driver.onCommand(MICMD_CONNECT, [this](const structMICMD& request) { connect(request); });
    for (const CCommandInfo& info : aCommands)
        if (info.m_bActive)
            m_driver.onCommand(info.m_micmd, [this](const structMICMD& request) { play(request); });
    m_driver.onCommand(MICMD_CANCEL, [this](const structMICMD& request) {
        m_player.cancel(request);
        m_driver.accept(request);
    });
    m_driver.start();
}

bool CRacesDriver::disturb(const structMICMD& request)
{
    ++m_ullRequests;
    if (request.s_micmd == MICMD_CONNECT)
        return false;
    if (m_bRestarts && std::chrono::steady_clock::now() > m_restart)
    {
        goAway(request);
        return true;
    }
    if (m_random.perMille(2))
        std::this_thread::sleep_for(milliseconds(20));
    if (m_random.perMille(5))
        for (unsigned int nLate = 1 + m_random.below(5); nLate > 0; --nLate)
            m_driver.respondTo(request.nSequenceNo - nLate, MIRSP_STATUS, MISTATUS_OK);
    const bool bRefused = m_random.perMille(10);
    if (bRefused)
        m_driver.respond(request, MIRSP_STATUS, MISTATUS_FAILED);
    return bRefused;
}

void CRacesDriver::connect(const structMICMD& request)
{
    ++m_nConnects;
    m_restart = std::chrono::steady_clock::now() + milliseconds(400 + m_random.below(1200));
    m_driver.accept(request);
}

// Some plays end before the response to their request is written.
void CRacesDriver::play(const structMICMD& request)
{
    static const int32_t anStatuses[] = {0, 0, 0, 0, 0, 0, 0, 3, 7, -1};
    const int32_t nStatus = m_random.pick(anStatuses);
    m_player.begin(request, nStatus, milliseconds(m_random.oneIn(10) ? 0 : m_random.below(6)));
    m_player.endWhatIsDue();
    m_driver.accept(request);
}

void CRacesDriver::goAway(const structMICMD& request)
{
    const auto last = [&] {
        if (m_random.oneIn(2))
            m_driver.accept(request);
        else
            m_driver.respondRaw(&request, 10);
    };
    m_driver.replace(last, milliseconds(m_random.below(50)));
    m_player.forgetAll();
}
