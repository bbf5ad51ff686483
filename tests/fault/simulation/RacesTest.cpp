// Sixteen threads over every public operation, two services objects and a handler that calls back,
// while the driver is replaced and the log file exchanged. What it is for comes with the thread
// sanitizer; what it asserts holds without it, too.
//
// ZELMEDIA_RACE_SECONDS  how long the threads run (3)
// ZELMEDIA_SEED          what they draw from (random, printed)
#include "Files.h"
#include "RacesDriver.h"
#include "RacesLedger.h"
#include "RandomRun.h"
#include "WaitUntil.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <string>
#include <unistd.h>

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace
{
typedef std::chrono::steady_clock CClock;
const unsigned int THREADS = 16;

// What the process has open. A log file opens its file at its first line, so that one may be there.
std::multiset<std::string> descriptors()
{
    std::multiset<std::string> setTargets;
    for (int n = 0; n < 1024; ++n)
    {
        char szTarget[256] = "";
        if (readlink(("/proc/self/fd/" + std::to_string(n)).c_str(), szTarget, sizeof(szTarget) - 1) > 0)
            setTargets.insert(szTarget);
    }
    const auto itLog = setTargets.find("/tmp/races.log");
    if (itLog != setTargets.end())
        setTargets.erase(itLog);
    return setTargets;
}

} // namespace

class Races : public testing::Test
{
protected:
    Races()
    {
        for (unsigned int n = 0; n < 2; ++n)
            m_apServices[n] = std::make_unique<CZelMediaServices>(&m_aHandlers[n]);
        exchangeLog();
        m_pDriver = std::make_unique<CRacesDriver>(m_ulSeed);
    }

    void exchangeLog()
    {
        auto* const pRegistry = new OrvLogLib::CLogFileRegistry(nullptr, "Races", nullptr, nullptr, nullptr, 0, 1, 4,
                                                                1000, 1, 1023, 0, 1023, 0, 10000, 0, 1, 40000, 1, 0);
        m_apServices[0]->setLogger(new CRaceLog(m_nLogs.fetch_add(1, std::memory_order_relaxed)), pRegistry);
    }

    void work(unsigned int nThread);
    void playAndWait(CRaceHandler& handler, CZelMediaServices& services, CRandomChoices& random);
    void handOver(CRaceHandler& handler, CZelMediaServices& services, CRandomChoices& random);
    int startOperations(CRaceStream& stream, CRandomChoices& random);
    void closeWhatWasLost(CRaceHandler& handler);
    void housekeeping(CZelMediaServices& services, CRandomChoices& random);
    static void ask(CZelMediaStream& stream, CRandomChoices& random);
    void end();

    const unsigned long m_ulSeed = setting<unsigned long>("ZELMEDIA_SEED", std::random_device()());
    CRaceHandler m_aHandlers[2];
    std::unique_ptr<CZelMediaServices> m_apServices[2];
    std::unique_ptr<CRacesDriver> m_pDriver;
    std::atomic<unsigned int> m_nLogs{0};
    std::atomic<bool> m_bStop{false};
    std::atomic<unsigned int> m_nRunning{0};
    std::atomic<unsigned long> m_ulLegID{0};
    std::atomic<uint64_t> m_ullRounds{0};
    std::atomic<unsigned int> m_nLost{0}; // plays that neither completed nor lost their stream
};

void Races::work(unsigned int nThread)
{
    CRandomChoices random(m_ulSeed * 1000 + nThread);
    CRaceHandler& handler = m_aHandlers[nThread % 2];
    CZelMediaServices& services = *m_apServices[nThread % 2];
    uint64_t ullRounds = 0;
    while (!m_bStop)
    {
        ++ullRounds;
        switch (random.below(8))
        {
        case 0:
        case 1:
        case 2: playAndWait(handler, services, random); break;
        case 3:
        case 4:
        case 5: handOver(handler, services, random); break;
        case 6: closeWhatWasLost(handler); break;
        default: housekeeping(services, random); break;
        }
    }
    m_ullRounds += ullRounds;
    --m_nRunning;
}

// One play at a time, ended or cancelled: one completion comes, unless the stream is lost with the pipes.
void Races::playAndWait(CRaceHandler& handler, CZelMediaServices& services, CRandomChoices& random)
{
    char szFile[] = "/p/one.wav";
    const CRaceStreamRef pStream = handler.open(services, m_ulLegID.fetch_add(1, std::memory_order_relaxed));
    if (!pStream)
        return std::this_thread::sleep_for(milliseconds(2));
    CZelMediaStream& stream = *pStream->pStream;
    for (unsigned int nPlays = 1 + random.below(4); nPlays > 0; --nPlays)
    {
        int nExpected;
        {
            std::lock_guard hold(pStream->mutex);
            nExpected = ++pStream->nAccepted;
            if (stream.playAddFile(szFile, 0, random.oneIn(8) ? 1 : 60, 0, 1, 0) != MCS_OK)
            {
                --pStream->nAccepted;
                break;
            }
            if (random.oneIn(3))
                stream.playCancel();
        }
        const bool bEnded = waitUntil([&] {
            std::lock_guard hold(pStream->mutex);
            ask(stream, random);
            return pStream->nCompleted == nExpected || stream.playGetInfo(nullptr) == MCS_NOTINITIALIZED;
        });
        m_nLost += !bEnded;
    }
    std::lock_guard hold(pStream->mutex);
    handler.close(*pStream);
}

// Several operations at once; from then on the handler has the stream.
void Races::handOver(CRaceHandler& handler, CZelMediaServices& services, CRandomChoices& random)
{
    if (handler.streams().size() > 4 * THREADS)
        return closeWhatWasLost(handler);
    const CRaceStreamRef pStream = handler.open(services, m_ulLegID.fetch_add(1, std::memory_order_relaxed));
    if (!pStream)
        return std::this_thread::sleep_for(milliseconds(2));
    std::lock_guard hold(pStream->mutex);
    pStream->bHandlers = startOperations(*pStream, random) == MCS_OK;
    pStream->bHalf = !pStream->bHandlers;
    pStream->nToPlay = static_cast<int>(random.below(4));
}

// The status of the last one.
int Races::startOperations(CRaceStream& stream, CRandomChoices& random)
{
    char szFile[] = "/p/many.wav";
    unsigned long ulFileID = 0;
    stream.bRecords = true;
    stream.nAccepted = 3; // the prompt, its recording, and what ends an operation that has ended already
    switch (random.below(4))
    {
    case 0: return stream.pStream->recordToFile(szFile, 0, 5, 1 + random.below(2), 0);
    case 1:
    {
        stream.pServices->openPhraseFile(szFile, &ulFileID);
        const int nStatus = stream.pStream->recordToFileWithPromptPhrase(ulFileID, 0, 800, szFile, 0, 5, 60, 0);
        stream.pServices->closePhraseFile(ulFileID);
        return nStatus;
    }
    default: break;
    }
    stream.bRecords = false;
    const int nPlays = static_cast<int>(2 + random.below(3));
    int nStatus = MCS_OK;
    for (int n = 1; n <= nPlays && nStatus == MCS_OK; ++n)
        nStatus = stream.pStream->playAddFile(szFile, 0, 60, n < nPlays, 0, 0);
    stream.nAccepted = nPlays;
    return nStatus;
}

// Streams that were lost with the pipes get no completion of a play any more. Where it is not known what
// there is to come, one more play goes last.
void Races::closeWhatWasLost(CRaceHandler& handler)
{
    char szFile[] = "/p/last.wav";
    for (const CRaceStreamRef& pStream : handler.streams())
    {
        const std::unique_lock hold(pStream->mutex, std::try_to_lock);
        if (!hold || !pStream->pStream)
            continue;
        if (pStream->bHandlers && !pStream->bRecords && pStream->pStream->playGetInfo(nullptr) == MCS_NOTINITIALIZED)
        {
            handler.close(*pStream);
        }
        else if (pStream->bHalf && pStream->pStream->playAddFile(szFile, 0, 60, 0, 0, 0) == MCS_OK)
        {
            ++pStream->nAccepted;
            pStream->bHandlers = true;
            pStream->bHalf = false;
        }
    }
}

void Races::ask(CZelMediaStream& stream, CRandomChoices& random)
{
    unsigned long ul = 0;
    int nCancelled = 0;
    switch (random.below(8))
    {
    case 0: stream.recordGetStatus(); break;
    case 1: stream.recordGetTimeMilliseconds(&ul); break;
    case 2: stream.playGetMilliSeconds(&ul); break;
    case 3: stream.playGetSeconds(&ul); break;
    case 4: stream.playSetCancelled(1); break;
    case 5: stream.playGetCancelled(&nCancelled); break;
    case 6: stream.recordSetSilenceParameters(1, 2, 3); break;
    default: stream.playResetBuffers(); break;
    }
}

void Races::housekeeping(CZelMediaServices& services, CRandomChoices& random)
{
    char szFile[] = "/p/phrases-0.ul";
    szFile[11] = static_cast<char>('0' + random.below(5));
    unsigned long ulFileID = 0;
    switch (random.below(6))
    {
    case 0: services.dump(); break;
    case 1: exchangeLog(); break;
    case 2: services.setMinimumSilenceDuration(100); break;
    case 3: CZelMediaServices(nullptr).openPhraseFile(szFile, &ulFileID); break;
    default:
        services.openPhraseFile(szFile, &ulFileID);
        services.closePhraseFile(ulFileID);
        break;
    }
}

// Without new work and with a driver that stays, everything ends by itself.
void Races::end()
{
    m_pDriver->allowRestarts(false);
    const bool bEnded = waitUntil([this] {
        std::this_thread::sleep_for(milliseconds(20));
        return m_apServices[0]->dump() == MCS_OK && CRaceLog::commandsAlive() == 0;
    });
    EXPECT_TRUE(bEnded) << CRaceLog::commandsAlive() << " commands are left";
    for (CRaceHandler& handler : m_aHandlers)
    {
        for (const CRaceStreamRef& pStream : handler.streams())
        {
            std::lock_guard hold(pStream->mutex);
            if (pStream->pStream)
                handler.close(*pStream);
        }
        EXPECT_EQ("", handler.faults());
    }
}

TEST_F(Races, NothingIsLostDoubledOrStuckWhenManyThreadsDoEverythingAtOnce)
{
    const unsigned long ulSeconds = setting("ZELMEDIA_RACE_SECONDS", 3UL);
    printf("seed %lu, %lu s\n", m_ulSeed, ulSeconds);
    fflush(stdout);
    ASSERT_TRUE(waitUntil([this] { return m_apServices[0]->dump() == MCS_OK; }));
    const std::multiset<std::string> setDescriptors = descriptors();
    const size_t nThreads = namesIn("/proc/self/task").size();
    m_pDriver->allowRestarts(true);

    std::vector<std::thread> vThreads;
    m_nRunning = THREADS;
    for (unsigned int n = 0; n < THREADS; ++n)
        vThreads.emplace_back([this, n] { work(n); });
    std::this_thread::sleep_for(seconds(ulSeconds));
    EXPECT_TRUE(waitUntil([this] { return m_pDriver->connects() > 1; })) << "no driver was replaced";
    m_bStop = true;
    if (!waitUntil([this] { return m_nRunning == 0; }, seconds(100)))
    {
        fprintf(stderr, "races: %u threads are stuck, seed %lu\n", m_nRunning.load(), m_ulSeed);
        abort(); // with a core that shows where
    }
    for (std::thread& thread : vThreads)
        thread.join();
    end();
    exchangeLog();
    m_apServices[0]->dump();

    EXPECT_EQ(0u, m_nLost);
    waitUntil([&] { return descriptors() == setDescriptors; }, seconds(10));
    EXPECT_EQ(setDescriptors, descriptors());
    EXPECT_TRUE(waitUntil([&] { return namesIn("/proc/self/task").size() == nThreads; }, seconds(10)));
    printf("%llu rounds, %llu requests, %llu completions, %u drivers, %u log files\n",
           static_cast<unsigned long long>(m_ullRounds), static_cast<unsigned long long>(m_pDriver->requests()),
           static_cast<unsigned long long>(m_aHandlers[0].completions() + m_aHandlers[1].completions()),
           m_pDriver->connects(), m_nLogs.load());
}
