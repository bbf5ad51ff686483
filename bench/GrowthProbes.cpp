// Probes of growth: the same operations among ever more streams and files, memory, start-up and shut-down.
#include "BareClient.h"
#include "LibraryUnderTest.h"
#include "MeasuringChild.h"
#include "Probe.h"
#include "Semaphore.h"
#include "ZelMediaStreamImpl.h"

#include <malloc.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{
using Duration = std::chrono::nanoseconds;

// Nothing of what is kept playing may time out while other probes take their time.
constexpr unsigned long NEVER_SECONDS = 4'000'000;

void require(int nStatus, const char* pWhat)
{
    if (nStatus != MCS_OK)
        throw std::runtime_error(std::string(pWhat) + ": " + MCSTATUSToString(nStatus));
}

void playForEver(CZelMediaStream* pStream)
{
    char szFile[] = "/var/lib/prompts/hello.wav";
    require(pStream->playAddFile(szFile, 0, NEVER_SECONDS, 0, 0, PEER_PLAY_HOLD), "a play is not accepted");
}

template <class OPERATION> Duration timed(const OPERATION& operation)
{
    const Duration start = monotonicNow();
    operation();
    return monotonicNow() - start;
}

struct COpenStream
{
    CZelMediaStream* m_pStream;
    int32_t m_nStreamID;
};

// Many streams that are open and playing. Each operation leaves them so.
class CStreamPopulation : private CLibraryUnderTest::CListener
{
public:
    enum EOperation
    {
        PLAY,
        EVENT,
        CANCEL,
        OPEN,
        CLOSE
    };

    explicit CStreamPopulation(size_t nStreams)
    {
        m_library.setTrace(ETrace::Off);
        m_library.setListener(this);
        for (size_t n = 0; n < nStreams; ++n)
            playForEver(m_library.openStream());
        CMIntf& mintf = m_library.interface();
        CCritSecHold hold(mintf.m_pCritSecCMIntf);
        for (const auto& entry : mintf.m_mapStreamByStreamID)
            m_vStreams.push_back({entry.second->m_pStream, entry.first});
    }

    Duration Measure(int nOperation, int64_t nTimes)
    {
        Duration spent(0);
        for (int64_t n = 0; n < nTimes; ++n)
            spent += once(static_cast<EOperation>(nOperation));
        return spent;
    }

private:
    Duration once(EOperation operation)
    {
        switch (operation)
        {
        case PLAY: return play();
        case EVENT: return event();
        case CANCEL: return cancel();
        case OPEN: return open();
        case CLOSE: return close();
        }
        throw std::runtime_error("no such operation");
    }

    Duration play()
    {
        const COpenStream& stream = nextStream();
        finish(stream);
        return timed([&] { playForEver(stream.m_pStream); });
    }

    // From just before the peer writes the event until the callback.
    Duration event()
    {
        const COpenStream& stream = nextStream();
        const Duration end = finish(stream);
        const Duration start(m_peer.askTimes().nBurst);
        playForEver(stream.m_pStream);
        return end - start;
    }

    // Its completion comes while and after the cancel is answered.
    Duration cancel()
    {
        const COpenStream& stream = nextStream();
        const Duration spent = timed([&] { require(stream.m_pStream->playCancel(), "a cancel failed"); });
        m_completed.wait();
        playForEver(stream.m_pStream);
        return spent;
    }

    Duration open()
    {
        CZelMediaStream* pStream = nullptr;
        const Duration spent = timed([&] { pStream = m_library.openStream(); });
        m_library.closeStream(pStream);
        return spent;
    }

    Duration close()
    {
        CZelMediaStream* const pStream = m_library.openStream();
        playForEver(pStream);
        return timed([&] { m_library.closeStream(pStream); });
    }

    // Far from the one before in every container, and each stream as often as any other.
    const COpenStream& nextStream()
    {
        constexpr size_t STRIDE = 7919; // a prime that divides no number of streams
        m_nNext = (m_nNext + STRIDE) % m_vStreams.size();
        return m_vStreams[m_nNext];
    }

    // Has the peer end the stream's play. Returns the time of the callback.
    Duration finish(const COpenStream& stream)
    {
        m_peer.finish(m_library.interface().connectID(), stream.m_nStreamID);
        m_completed.wait();
        return m_completedAt;
    }

    void onCompletion(CZelMediaStream*, MCSTATUS) override
    {
        m_completedAt = monotonicNow();
        m_completed.post();
    }

    CLibraryUnderTest& m_library = CLibraryUnderTest::get();
    CBareClient m_peer;
    std::vector<COpenStream> m_vStreams;
    size_t m_nNext = 0;
    CSemaphore m_completed;
    Duration m_completedAt = {};
};

// Many phrase files that are open, and the opening of one more.
class CFilePopulation
{
public:
    explicit CFilePopulation(size_t nFiles)
    {
        m_library.setTrace(ETrace::Off);
        for (; m_nFiles < nFiles; ++m_nFiles)
            open();
    }

    Duration Measure(int, int64_t nTimes)
    {
        Duration spent(0);
        for (int64_t n = 0; n < nTimes; ++n)
        {
            unsigned long ulFileID = 0;
            spent += timed([&] { ulFileID = open(); });
            require(m_library.services().closePhraseFile(ulFileID), "a phrase file cannot be closed");
        }
        return spent;
    }

private:
    unsigned long open()
    {
        // All of one length: names that differ in that are told apart at once.
        std::string strName = "/var/lib/prompts/phrases-" + std::to_string(1'000'000 + m_nFiles) + ".raw";
        unsigned long ulFileID = 0;
        require(m_library.services().openPhraseFile(strName.data(), &ulFileID), "a phrase file cannot be opened");
        return ulFileID;
    }

    CLibraryUnderTest& m_library = CLibraryUnderTest::get();
    size_t m_nFiles = 0;
};

// An operation in a child that keeps so many streams or files. The probes of one size share it.
template <class POPULATION> class CPopulationProbe : public CProbe
{
public:
    CPopulationProbe(int nSize, int nOperation) : m_nSize(nSize), m_nOperation(nOperation) {}

    Duration run(int64_t nOperations) override { return Duration(child(m_nSize).run(m_nOperation, nOperations)); }

private:
    static CMeasuringChild& child(int nSize)
    {
        static std::map<int, std::unique_ptr<CMeasuringChild>> mapChildren;
        std::unique_ptr<CMeasuringChild>& pChild = mapChildren[nSize];
        if (!pChild)
        {
            pChild = std::make_unique<CMeasuringChild>([nSize]() -> CMeasuringChild::Measure {
                auto pPopulation = std::make_shared<POPULATION>(static_cast<size_t>(nSize));
                return [pPopulation](int nOperation, int64_t nTimes) {
                    return pPopulation->Measure(nOperation, nTimes).count();
                };
            });
        }
        return *pChild;
    }

    int m_nSize;
    int m_nOperation;
};

enum EMemory
{
    OPEN_STREAM,
    PLAYING_STREAM,
    QUEUED_PLAY
};

size_t bytesInUse()
{
    return ::mallinfo2().uordblks;
}

// The bytes that so many streams take, or a play on each of them, or one more that waits behind it.
int64_t measureMemory(int nOperation, int64_t nStreams)
{
    CLibraryUnderTest& library = CLibraryUnderTest::get();
    library.setTrace(ETrace::Off);
    std::vector<CZelMediaStream*> vpStreams(static_cast<size_t>(nStreams));
    const auto playAll = [&vpStreams] {
        for (CZelMediaStream* const pStream : vpStreams)
            playForEver(pStream);
    };
    std::array<size_t, 4> anBytes = {bytesInUse()};
    for (CZelMediaStream*& pStream : vpStreams)
        pStream = library.openStream();
    anBytes[OPEN_STREAM + 1] = bytesInUse();
    playAll();
    anBytes[PLAYING_STREAM + 1] = bytesInUse();
    playAll();
    anBytes[QUEUED_PLAY + 1] = bytesInUse();
    const auto nStep = static_cast<size_t>(nOperation);
    return static_cast<int64_t>(anBytes[nStep + 1] - anBytes[nStep]);
}

// What a process has in memory of its own, without files.
int64_t anonymousBytes()
{
    int64_t nTotal = 0;
    int64_t nResident = 0;
    int64_t nOfFiles = 0;
    std::ifstream("/proc/self/statm") >> nTotal >> nResident >> nOfFiles;
    return (nResident - nOfFiles) * ::sysconf(_SC_PAGESIZE);
}

// What the library takes as soon as it is connected.
int64_t measureFootprint(int, int64_t)
{
    const int64_t nBefore = anonymousBytes();
    CLibraryUnderTest::get();
    return anonymousBytes() - nBefore;
}

enum ELife
{
    CONSTRUCT,
    CONNECT,
    SHUT_DOWN
};

// The first services object of a process, the moment from which on it is of use, and the end of the interface.
int64_t measureLife(int nOperation, int64_t)
{
    const Duration start = monotonicNow();
    const CZelMediaServices services(nullptr);
    const Duration constructed = monotonicNow();
    while (g_pmintf->connectID() == -1)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    const Duration connected = monotonicNow();
    delete std::exchange(g_pmintf, nullptr);
    const Duration ended = monotonicNow();
    switch (static_cast<ELife>(nOperation))
    {
    case CONSTRUCT: return (constructed - start).count();
    case CONNECT: return (connected - start).count();
    case SHUT_DOWN: return (ended - connected).count();
    }
    throw std::runtime_error("no such operation");
}

// An operation in a child that is made for it. One child carries it out so many times, or one child each.
class CFreshProcessProbe : public CProbe
{
public:
    CFreshProcessProbe(CMeasuringChild::Measure measure, int nOperation, bool bChildEach)
        : m_measure(std::move(measure)), m_nOperation(nOperation), m_bChildEach(bChildEach)
    {
    }

    Duration run(int64_t nOperations) override
    {
        if (!m_bChildEach)
            return runInChild(nOperations);
        Duration spent(0);
        for (int64_t n = 0; n < nOperations; ++n)
            spent += runInChild(1);
        return spent;
    }

private:
    Duration runInChild(int64_t nOperations)
    {
        CMeasuringChild child([this] { return m_measure; });
        const Duration spent(child.run(m_nOperation, nOperations));
        child.end();
        return spent;
    }

    CMeasuringChild::Measure m_measure;
    int m_nOperation;
    bool m_bChildEach;
};

template <class POPULATION>
void addPopulationProbe(CProbeTable& table, const std::string& strName, int nSize, int nOperation)
{
    table.add(
        "growth/" + strName + "-" + std::to_string(nSize),
        [=] { return std::make_unique<CPopulationProbe<POPULATION>>(nSize, nOperation); });
}
} // namespace

void addGrowthProbes(CProbeTable& table)
{
    for (const int nStreams : {10, 1000, 10'000, 100'000})
    {
        addPopulationProbe<CStreamPopulation>(table, "play", nStreams, CStreamPopulation::PLAY);
        addPopulationProbe<CStreamPopulation>(table, "event", nStreams, CStreamPopulation::EVENT);
        addPopulationProbe<CStreamPopulation>(table, "cancel", nStreams, CStreamPopulation::CANCEL);
        addPopulationProbe<CStreamPopulation>(table, "open", nStreams, CStreamPopulation::OPEN);
        addPopulationProbe<CStreamPopulation>(table, "close", nStreams, CStreamPopulation::CLOSE);
    }
    for (const int nFiles : {10, 100, 1000, 10'000})
        addPopulationProbe<CFilePopulation>(table, "openfile", nFiles, 0);

    const auto addFresh = [&table](const char* pName, CMeasuringChild::Measure measure, int nWhat, bool bChildEach) {
        table.add(pName, [=] { return std::make_unique<CFreshProcessProbe>(measure, nWhat, bChildEach); });
    };
    addFresh("memory/process", measureFootprint, 0, true);
    addFresh("memory/stream", measureMemory, OPEN_STREAM, false);
    addFresh("memory/playing", measureMemory, PLAYING_STREAM, false);
    addFresh("memory/queued", measureMemory, QUEUED_PLAY, false);
    addFresh("life/construct", measureLife, CONSTRUCT, true);
    addFresh("life/connect", measureLife, CONNECT, true);
    addFresh("life/shutdown", measureLife, SHUT_DOWN, true);
}
