#include "Lives.h"
#include "Application.h"
#include "Places.h"
#include "ResponseBudget.h"
#include "WaitUntil.h"

#include <chrono>
#include <csignal>
#include <sys/stat.h>
#include <thread>

namespace
{
using EEnd = CLife::EEnd;
int below(std::mt19937& random, unsigned int nLimit)
{
    return static_cast<int>(random() % nLimit);
}
} // namespace

std::vector<CLife> allLives()
{
    std::vector<CLife> vLives;
    for (const char* pszCommand : {"openfile", "closefile", "openstream", "closestream", "playclip", "playfile",
                                   "recordfile", "cancel", "recordgettime", "recordgetstatus", "dump"})
        vLives.push_back({std::string("rule ") + pszCommand, EEnd::Rule, true, pszCommand, MICMD_NULL, ""});

    for (const MICMD micmd :
         {MICMD_OPENFILE, MICMD_CLOSEFILE, MICMD_OPENSTREAM, MICMD_CLOSESTREAM, MICMD_PLAYCLIP, MICMD_PLAYFILE,
          MICMD_RECORDFILE, MICMD_CANCEL, MICMD_RECORDGETTIME, MICMD_RECORDGETSTATUS, MICMD_DUMP})
    {
        for (const char* pszStep : {"read", "answered"})
            vLives.push_back(
                {std::string(MICMDToString(micmd)) + " " + pszStep, EEnd::Step, false, "", micmd, pszStep});
    }
    for (const MICMD micmd : {MICMD_PLAYFILE, MICMD_RECORDFILE})
    {
        for (const char* pszStep : {"event", "told"})
            vLives.push_back(
                {std::string(MICMDToString(micmd)) + " " + pszStep, EEnd::Step, false, "", micmd, pszStep});
    }
    vLives.push_back({"connect answered", EEnd::WhileReopening, false, "", MICMD_CONNECT, "answered"});
    vLives.push_back({"reopening read", EEnd::WhileReopening, false, "", MICMD_OPENFILE, "read"});
    vLives.push_back({"reopening answered", EEnd::WhileReopening, false, "", MICMD_OPENFILE, "answered"});
    for (const bool bReference : {true, false})
    {
        vLives.push_back({"kill", EEnd::Kill, bReference, "", MICMD_NULL, ""});
        vLives.push_back({"stop, kill", EEnd::StopKill, bReference, "", MICMD_NULL, ""});
        vLives.push_back({"stop, continue, kill", EEnd::StopContinue, bReference, "", MICMD_NULL, ""});
    }
    return vLives;
}

bool CLivingDriver::start(const CLife& life, int nNumber, std::mt19937& random)
{
    response_budget::driverStarts();
    if (life.bReference)
    {
        mkdir("/tmp/calls", 0777);
        return m_process.start(REFERENCE_DRIVER_PROGRAM,
                               {"--audio", "/tmp/calls", "--log", "/tmp/driver.log", "--log-level", "error"});
    }
    const int STREAMS_OF_A_LIFE = 1000000;
    const bool bOfReopening = life.eEnd == EEnd::WhileReopening && life.micmd == MICMD_OPENFILE;
    const unsigned int nLimit = bOfReopening ? CApplication::PHRASE_FILES : life.isUsed() ? 3 : 1;
    std::vector<std::string> vArguments = {std::to_string(nNumber * STREAMS_OF_A_LIFE), std::to_string(life.micmd),
                                           life.strStep, std::to_string(1 + below(random, nLimit))};
    if (!life.isUsed())
        vArguments.push_back("armed");
    return m_process.start(STEP_DRIVER_PROGRAM, vArguments);
}

bool CLivingDriver::die(const CLife& life, CApplication& application, std::mt19937& random)
{
    const size_t nEnough = application.episodes() + static_cast<size_t>(below(random, 20));
    if (!waitUntil([&] { return application.episodes() >= nEnough; }))
        return false;
    switch (life.eEnd)
    {
    case EEnd::Rule:
        if (!CReferenceDriver::control(
                {"fault", "do=die", "on=" + life.strCommand, "nth=" + std::to_string(1 + below(random, 3))}))
            return false;
        return waitDead();
    case EEnd::Step: m_process.signal(SIGUSR1); return waitDead();
    case EEnd::StopKill:
        if (!stopWithARequestUnread())
            return false;
        break;
    case EEnd::StopContinue:
    {
        if (!stopWithARequestUnread())
            return false;
        response_budget::expire();
        m_process.signal(SIGCONT);
        // By then the late response has been read.
        const size_t nAfter = application.episodes() + 2 * CApplication::THREADS;
        if (!waitUntil([&] { return application.episodes() >= nAfter; }))
            return false;
        break;
    }
    default: break;
    }
    m_process.kill();
    response_budget::driverDied();
    return true;
}

bool CLivingDriver::stopWithARequestUnread()
{
    m_process.freeze();
    return waitUntil([] { return response_budget::waiting() > 0; });
}

bool CLivingDriver::waitDead(const std::function<void()>& meanwhile)
{
    const bool bDead = waitUntil([&] {
        if (meanwhile)
            meanwhile();
        return !m_process.isRunning();
    });
    response_budget::driverDied();
    return bDead;
}
