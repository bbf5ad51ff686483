// A long life under load, with one driver after the other: in the end everything is as it was.
//
// ZELMEDIA_COMMANDS and ZELMEDIA_RECONNECTS: how much; ZELMEDIA_SECONDS: how long at least;
// ZELMEDIA_WORLDS: in how many processes at a time.
#include "../restarts/Worlds.h"
#include "HeapGauge.h"
#include "Load.h"
#include "OrvLogLib.h"
#include "Places.h"
#include "RandomRun.h"
#include "ReferenceDriver.h"
#include "Usage.h"
#include "WaitUntil.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <iostream>
#include <memory>
#include <sys/mman.h>
#include <thread>

namespace
{
using CClock = std::chrono::steady_clock;

const int THREADS = 4;
const char GAUGE_FILE[] = "/tmp/heap-gauge";
#if defined(ZELMEDIA_ASAN) || defined(ZELMEDIA_TSAN)
const bool MEMORY_TELLS = false; // freed memory is kept to find its use
#else
const bool MEMORY_TELLS = true;
#endif
// Bytes: malloc gives a block more than it was asked for where the rest would be of no use.
const int64_t ROUNDING = 1024;
// Pages that are touched for the first time, holes between blocks: no more of them after more commands.
const long RESIDENT_SLACK_KB = 4096;

// What the drivers count into: one at a time. A sanitizer wants to be the first library of its program.
const CHeapGauge& heapGauge()
{
    static const CHeapGauge* const s_pGauge = [] {
        const int nFile = open(GAUGE_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        void* p = MAP_FAILED;
        if (ftruncate(nFile, sizeof(CHeapGauge)) == 0)
            p = mmap(nullptr, sizeof(CHeapGauge), PROT_READ, MAP_SHARED, nFile, 0);
        close(nFile);
        static const CHeapGauge NONE;
        return p == MAP_FAILED ? &NONE : static_cast<const CHeapGauge*>(p);
    }();
    return *s_pGauge;
}

// What a process holds, taken where nothing is going on.
struct CState
{
    CState(pid_t nProcessID, const CHeapGauge& gauge) : usage(nProcessID), nBlocks(gauge.nBlocks), nBytes(gauge.nBytes)
    {
    }
    bool operator==(const CState& other) const
    {
        return usage == other.usage && nBlocks == other.nBlocks && std::abs(nBytes - other.nBytes) <= ROUNDING;
    }

    CUsage usage;
    int64_t nBlocks;
    int64_t nBytes;
};
std::ostream& operator<<(std::ostream& os, const CState& state)
{
    return os << state.usage << ", " << state.nBlocks << " blocks, " << state.nBytes << " bytes";
}

// What the process holds when nothing is coming to its end any more.
CState settledState(pid_t nProcessID, const CHeapGauge& gauge)
{
    CState state(nProcessID, gauge);
    for (int nSame = 0; nSame < 10;)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const CState next(nProcessID, gauge);
        nSame = next == state ? nSame + 1 : 0;
        state = next;
    }
    return state;
}

// Waits until the process holds what it held.
void expectBack(pid_t nProcessID, const CHeapGauge& gauge, const CState& before)
{
    waitUntil([&] { return CState(nProcessID, gauge) == before; }, std::chrono::seconds(5));
    EXPECT_EQ(before, CState(nProcessID, gauge));
}

// What was done, and by how much resident memory grew.
struct CDone
{
    long nCommands = 0;
    long nReconnects = 0;
    long nReopened = 0; // phrase files that the next driver played
    long nGrowthKb = 0;
    long nDriverGrowthKb = 0; // at most in one life of a driver
};

class CLongLife
{
public:
    CLongLife()
    {
        heapGauge();
        setenv("ZELMEDIA_HEAP_GAUGE", GAUGE_FILE, 1);
        CLoad::makeFiles();
        std::ofstream("/tmp/channels.json") << R"({"channels": [{"call": "*", "type": "null"}]})";
        auto* const pQuiet = new OrvLogLib::CLogFile("Quiet", nullptr, false, false, false);
        pQuiet->setTraceMask(0);
        m_pServices->setLogger(pQuiet, nullptr);
        for (int nFile = 0; nFile < CLoad::PHRASE_FILES; ++nFile)
        {
            unsigned long ulFileID = 0;
            m_pServices->openPhraseFile(std::string("/tmp/phrases-" + std::to_string(nFile) + ".ul").data(), &ulFileID);
            m_vPhrases.push_back(ulFileID);
        }
        m_pLeftAlone = std::make_unique<CLoad>("left", m_vPhrases);
    }

    // All that the process and its drivers hold is back in the end, or the test has failed.
    void live(long nCommands, long nReconnects, CClock::time_point until)
    {
        // Half of it under one driver. What is made once is made in the first life.
        const long nOfALife = nCommands / 10 / nReconnects;
        liveOnce(nOfALife);
        const CState before = settledState(getpid(), ownHeapGauge());
        const long nResidentKb = residentKilobytes(getpid());
        while (!testing::Test::HasFailure() && (m_done.nReconnects < nReconnects || CClock::now() < until))
            liveOnce(nOfALife);
        liveOnce(nCommands / 2);
        if (testing::Test::HasFatalFailure())
            return;
        expectBack(getpid(), ownHeapGauge(), before);
        m_done.nGrowthKb = residentKilobytes(getpid()) - nResidentKb;
        std::cout << "before: " << before << "\nafter:  " << CState(getpid(), ownHeapGauge())
                  << "\ndriver: " << m_driverState << std::endl;
    }

    const CDone& done() const { return m_done; }

private:
    // From one driver to the next.
    void liveOnce(long nCommands)
    {
        if (m_driver.processID() <= 0)
            startDriver();
        workUnderOneDriver(nCommands);
        replaceDriver();
    }

    void startDriver()
    {
        std::vector<std::string> vWords;
        if (MEMORY_TELLS)
            vWords.push_back(std::string("LD_PRELOAD=") + HEAP_GAUGE);
        for (const char* const pszWord : {REFERENCE_DRIVER_PROGRAM, "--channels", "/tmp/channels.json", "--log",
                                          "/tmp/driver.log", "--log-level", "error"})
            vWords.emplace_back(pszWord);
        ASSERT_TRUE(m_driver.start("/usr/bin/env", vWords));
        ASSERT_TRUE(waitUntil([this] { return m_pServices->dump() == MCS_OK; }));
    }

    // The driver dies with commands in flight, and the next one comes. In between there is a quiet second,
    // in which the library frees what it has kept.
    void replaceDriver()
    {
        ASSERT_TRUE(m_pLeftAlone->abandon());
        m_driver.kill();
        ASSERT_TRUE(waitUntil([this] { return m_pServices->dump() == MCS_NOTCONNECTED; }));
        m_pLeftAlone->closeAbandoned();
        startDriver();
        const int nReopened = m_pLeftAlone->playEachPhrase();
        ASSERT_EQ(CLoad::PHRASE_FILES, nReopened);
        m_done.nReopened += nReopened;
        ++m_done.nReconnects;
    }

    void work(long nCommands)
    {
        std::atomic<long> nToDo{nCommands};
        std::vector<std::future<bool>> vLoads;
        for (int nThread = 0; nThread < THREADS; ++nThread)
        {
            vLoads.push_back(std::async(
                std::launch::async,
                [this, nThread, &nToDo] {
                    return CLoad("load" + std::to_string(nThread), m_vPhrases).callUntilDone(nToDo);
                }));
        }
        for (std::future<bool>& load : vLoads)
            ASSERT_TRUE(load.get());
        m_done.nCommands += nCommands - nToDo;
        loadAnotherFile();
    }

    // The driver forgets the files that nobody holds any more when it loads the next one.
    void loadAnotherFile()
    {
        std::string strFile = CLoad::ANOTHER_FILE;
        unsigned long ulFileID = 0;
        ASSERT_EQ(MCS_OK, m_pServices->openPhraseFile(strFile.data(), &ulFileID));
        ASSERT_EQ(MCS_OK, m_pServices->closePhraseFile(ulFileID));
    }

    // At the end of its work the driver holds what it held when it had warmed up.
    void workUnderOneDriver(long nCommands)
    {
        work(nCommands / 10);
        const pid_t nDriver = m_driver.processID();
        const CState before = settledState(nDriver, heapGauge());
        const long nResidentKb = residentKilobytes(nDriver);
        work(nCommands);
        expectBack(nDriver, heapGauge(), before);
        m_driverState = before;
        m_done.nDriverGrowthKb = std::max(m_done.nDriverGrowthKb, residentKilobytes(nDriver) - nResidentKb);
    }

    const std::unique_ptr<CZelMediaServices> m_pServices = std::make_unique<CZelMediaServices>(nullptr);
    std::vector<unsigned long> m_vPhrases;
    std::unique_ptr<CLoad> m_pLeftAlone;
    CDriverProcess m_driver;
    CState m_driverState{getpid(), ownHeapGauge()};
    CDone m_done;
};
} // namespace

TEST(Soak, EverythingReturnsToWhereItWas)
{
    const long nReconnects = setting("ZELMEDIA_RECONNECTS", 2L);
    const long nCommands = setting("ZELMEDIA_COMMANDS", 20000L);
    const auto until = CClock::now() + std::chrono::seconds(setting("ZELMEDIA_SECONDS", 0L));
    const long nWorlds = setting("ZELMEDIA_WORLDS", std::clamp(nReconnects / 50, 1L, 4L));

    CShared<CDone> worlds(static_cast<size_t>(nWorlds));
    inWorlds(static_cast<size_t>(nWorlds), [&](size_t nWorld) {
        CLongLife life;
        life.live(nCommands / nWorlds, (nReconnects + nWorlds - 1) / nWorlds, until);
        worlds[nWorld] = life.done();
    });
    CDone all;
    for (long nWorld = 0; nWorld < nWorlds; ++nWorld)
    {
        const CDone& done = worlds[static_cast<size_t>(nWorld)];
        all.nCommands += done.nCommands;
        all.nReconnects += done.nReconnects;
        all.nReopened += done.nReopened;
        all.nGrowthKb = std::max(all.nGrowthKb, done.nGrowthKb);
        all.nDriverGrowthKb = std::max(all.nDriverGrowthKb, done.nDriverGrowthKb);
    }
    std::cout << all.nCommands << " commands, " << all.nReconnects << " reconnects, " << all.nReopened
              << " phrase files opened again, " << nWorlds << " processes at a time; resident memory grew by "
              << all.nGrowthKb << " KiB, that of a driver by " << all.nDriverGrowthKb << " KiB at most" << std::endl;
    if (MEMORY_TELLS)
    {
        EXPECT_LE(all.nGrowthKb, RESIDENT_SLACK_KB);
        EXPECT_LE(all.nDriverGrowthKb, RESIDENT_SLACK_KB);
    }
}
