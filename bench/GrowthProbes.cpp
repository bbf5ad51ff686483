// Probes of growth: the same operations among ever more streams and files, memory, start-up and shut-down.
#include "BareClient.h"
#include "ChildProcess.h"
#include "LibraryUnderTest.h"
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

void Require(int nStatus, const char* pWhat)
{
    if (nStatus != MCS_OK)
        throw std::runtime_error(std::string(pWhat) + ": " + MCSTATUSToString(nStatus));
}

void PlayForEver(CZelMediaStream* pStream)
{
    char szFile[] = "/var/lib/prompts/hello.wav";
    Require(pStream->playAddFile(szFile, 0, NEVER_SECONDS, 0, 0, PEER_PLAY_HOLD), "a play is not accepted");
}

template <class OPERATION> Duration Timed(const OPERATION& operation)
{
    const Duration start = MonotonicNow();
    operation();
    return MonotonicNow() - start;
}

struct COpenStream
{
    CZelMediaStream* m_pStream;
    std::int32_t m_nStreamID;
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

    explicit CStreamPopulation(std::size_t nStreams)
    {
        m_library.SetTrace(ETrace::Off);
        m_library.SetListener(this);
        for (std::size_t n = 0; n < nStreams; ++n)
            PlayForEver(m_library.OpenStream());
        CMIntf& mintf = m_library.Interface();
        CCritSecHold hold(mintf.m_pCritSecCMIntf);
        for (const auto& entry : mintf.m_mapStreamByStreamID)
            m_vStreams.push_back({entry.second->m_pStream, entry.first});
    }

    Duration Measure(int nOperation, std::int64_t nTimes)
    {
        Duration spent(0);
        for (std::int64_t n = 0; n < nTimes; ++n)
            spent += Once(static_cast<EOperation>(nOperation));
        return spent;
    }

private:
    Duration Once(EOperation operation)
    {
        switch (operation)
        {
        case PLAY: return Play();
        case EVENT: return Event();
        case CANCEL: return Cancel();
        case OPEN: return Open();
        case CLOSE: return Close();
        }
        throw std::runtime_error("no such operation");
    }

    Duration Play()
    {
        const COpenStream& stream = NextStream();
        Finish(stream);
        return Timed([&] { PlayForEver(stream.m_pStream); });
    }

    // From just before the peer writes the event until the callback.
    Duration Event()
    {
        const COpenStream& stream = NextStream();
        const Duration end = Finish(stream);
        const Duration start(m_peer.AskTimes().nBurst);
        PlayForEver(stream.m_pStream);
        return end - start;
    }

    // Its completion comes while and after the cancel is answered.
    Duration Cancel()
    {
        const COpenStream& stream = NextStream();
        const Duration spent = Timed([&] { Require(stream.m_pStream->playCancel(), "a cancel failed"); });
        m_completed.Wait();
        PlayForEver(stream.m_pStream);
        return spent;
    }

    Duration Open()
    {
        CZelMediaStream* pStream = nullptr;
        const Duration spent = Timed([&] { pStream = m_library.OpenStream(); });
        m_library.CloseStream(pStream);
        return spent;
    }

    Duration Close()
    {
        CZelMediaStream* const pStream = m_library.OpenStream();
        PlayForEver(pStream);
        return Timed([&] { m_library.CloseStream(pStream); });
    }

    // Far from the one before in every container, and each stream as often as any other.
    const COpenStream& NextStream()
    {
        constexpr std::size_t STRIDE = 7919; // a prime that divides no number of streams
        m_nNext = (m_nNext + STRIDE) % m_vStreams.size();
        return m_vStreams[m_nNext];
    }

    // Has the peer end the stream's play. Returns the time of the callback.
    Duration Finish(const COpenStream& stream)
    {
        m_peer.Finish(m_library.Interface().connectID(), stream.m_nStreamID);
        m_completed.Wait();
        return m_completedAt;
    }

    void OnCompletion(CZelMediaStream*, MCSTATUS) override
    {
        m_completedAt = MonotonicNow();
        m_completed.Post();
    }

    CLibraryUnderTest& m_library = CLibraryUnderTest::Get();
    CBareClient m_peer;
    std::vector<COpenStream> m_vStreams;
    std::size_t m_nNext = 0;
    CSemaphore m_completed;
    Duration m_completedAt = {};
};

// Many phrase files that are open, and the opening of one more.
class CFilePopulation
{
public:
    explicit CFilePopulation(std::size_t nFiles)
    {
        m_library.SetTrace(ETrace::Off);
        for (; m_nFiles < nFiles; ++m_nFiles)
            Open();
    }

    Duration Measure(int, std::int64_t nTimes)
    {
        Duration spent(0);
        for (std::int64_t n = 0; n < nTimes; ++n)
        {
            unsigned long ulFileID = 0;
            spent += Timed([&] { ulFileID = Open(); });
            Require(m_library.Services().closePhraseFile(ulFileID), "a phrase file cannot be closed");
        }
        return spent;
    }

private:
    unsigned long Open()
    {
        // All of one length: names that differ in that are told apart at once.
        std::string strName = "/var/lib/prompts/phrases-" + std::to_string(1'000'000 + m_nFiles) + ".raw";
        unsigned long ulFileID = 0;
        Require(m_library.Services().openPhraseFile(strName.data(), &ulFileID), "a phrase file cannot be opened");
        return ulFileID;
    }

    CLibraryUnderTest& m_library = CLibraryUnderTest::Get();
    std::size_t m_nFiles = 0;
};

// An operation in a child that keeps so many streams or files. The probes of one size share it.
template <class POPULATION> class CPopulationProbe : public CProbe
{
public:
    CPopulationProbe(int nSize, int nOperation) : m_nSize(nSize), m_nOperation(nOperation) {}

    Duration Run(std::int64_t nOperations) override { return Duration(Child(m_nSize).Run(m_nOperation, nOperations)); }

private:
    static CMeasuringChild& Child(int nSize)
    {
        static std::map<int, std::unique_ptr<CMeasuringChild>> mapChildren;
        std::unique_ptr<CMeasuringChild>& pChild = mapChildren[nSize];
        if (!pChild)
        {
            pChild = std::make_unique<CMeasuringChild>([nSize]() -> CMeasuringChild::Measure {
                auto pPopulation = std::make_shared<POPULATION>(static_cast<std::size_t>(nSize));
                return [pPopulation](int nOperation, std::int64_t nTimes) {
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

std::size_t BytesInUse()
{
    return ::mallinfo2().uordblks;
}

// The bytes that so many streams take, or a play on each of them, or one more that waits behind it.
std::int64_t MeasureMemory(int nOperation, std::int64_t nStreams)
{
    CLibraryUnderTest& library = CLibraryUnderTest::Get();
    library.SetTrace(ETrace::Off);
    std::vector<CZelMediaStream*> vpStreams(static_cast<std::size_t>(nStreams));
    const auto playAll = [&vpStreams] {
        for (CZelMediaStream* const pStream : vpStreams)
            PlayForEver(pStream);
    };
    std::array<std::size_t, 4> anBytes = {BytesInUse()};
    for (CZelMediaStream*& pStream : vpStreams)
        pStream = library.OpenStream();
    anBytes[OPEN_STREAM + 1] = BytesInUse();
    playAll();
    anBytes[PLAYING_STREAM + 1] = BytesInUse();
    playAll();
    anBytes[QUEUED_PLAY + 1] = BytesInUse();
    const auto nStep = static_cast<std::size_t>(nOperation);
    return static_cast<std::int64_t>(anBytes[nStep + 1] - anBytes[nStep]);
}

// What a process has in memory of its own, without files.
std::int64_t AnonymousBytes()
{
    std::int64_t nTotal = 0;
    std::int64_t nResident = 0;
    std::int64_t nOfFiles = 0;
    std::ifstream("/proc/self/statm") >> nTotal >> nResident >> nOfFiles;
    return (nResident - nOfFiles) * ::sysconf(_SC_PAGESIZE);
}

// What the library takes as soon as it is connected.
std::int64_t MeasureFootprint(int, std::int64_t)
{
    const std::int64_t nBefore = AnonymousBytes();
    CLibraryUnderTest::Get();
    return AnonymousBytes() - nBefore;
}

enum ELife
{
    CONSTRUCT,
    CONNECT,
    SHUT_DOWN
};

// The first services object of a process, the moment from which on it is of use, and the end of the interface.
std::int64_t MeasureLife(int nOperation, std::int64_t)
{
    const Duration start = MonotonicNow();
    const CZelMediaServices services(nullptr);
    const Duration constructed = MonotonicNow();
    while (g_pmintf->connectID() == -1)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    const Duration connected = MonotonicNow();
    delete std::exchange(g_pmintf, nullptr);
    const Duration ended = MonotonicNow();
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

    Duration Run(std::int64_t nOperations) override
    {
        if (!m_bChildEach)
            return RunInChild(nOperations);
        Duration spent(0);
        for (std::int64_t n = 0; n < nOperations; ++n)
            spent += RunInChild(1);
        return spent;
    }

private:
    Duration RunInChild(std::int64_t nOperations)
    {
        CMeasuringChild child([this] { return m_measure; });
        const Duration spent(child.Run(m_nOperation, nOperations));
        child.End();
        return spent;
    }

    CMeasuringChild::Measure m_measure;
    int m_nOperation;
    bool m_bChildEach;
};

template <class POPULATION>
void AddPopulationProbe(CProbeTable& table, const std::string& strName, int nSize, int nOperation)
{
    table.Add("growth/" + strName + "-" + std::to_string(nSize),
              [=] { return std::make_unique<CPopulationProbe<POPULATION>>(nSize, nOperation); });
}
} // namespace

void AddGrowthProbes(CProbeTable& table)
{
    for (const int nStreams : {10, 1000, 10'000, 100'000})
    {
        AddPopulationProbe<CStreamPopulation>(table, "play", nStreams, CStreamPopulation::PLAY);
        AddPopulationProbe<CStreamPopulation>(table, "event", nStreams, CStreamPopulation::EVENT);
        AddPopulationProbe<CStreamPopulation>(table, "cancel", nStreams, CStreamPopulation::CANCEL);
        AddPopulationProbe<CStreamPopulation>(table, "open", nStreams, CStreamPopulation::OPEN);
        AddPopulationProbe<CStreamPopulation>(table, "close", nStreams, CStreamPopulation::CLOSE);
    }
    for (const int nFiles : {10, 100, 1000, 10'000})
        AddPopulationProbe<CFilePopulation>(table, "openfile", nFiles, 0);

    const auto addFresh = [&table](const char* pName, CMeasuringChild::Measure measure, int nWhat, bool bChildEach) {
        table.Add(pName, [=] { return std::make_unique<CFreshProcessProbe>(measure, nWhat, bChildEach); });
    };
    addFresh("memory/process", MeasureFootprint, 0, true);
    addFresh("memory/stream", MeasureMemory, OPEN_STREAM, false);
    addFresh("memory/playing", MeasureMemory, PLAYING_STREAM, false);
    addFresh("memory/queued", MeasureMemory, QUEUED_PLAY, false);
    addFresh("life/construct", MeasureLife, CONSTRUCT, true);
    addFresh("life/connect", MeasureLife, CONNECT, true);
    addFresh("life/shutdown", MeasureLife, SHUT_DOWN, true);
}
