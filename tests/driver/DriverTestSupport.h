// What the driver's tests share: audio files, records, clients in memory, and the captured log.
#ifndef DRIVER_TEST_SUPPORT_H
#define DRIVER_TEST_SUPPORT_H

#include "ClientRegistry.h"
#include "ClipStore.h"
#include "Executor.h"
#include "FileChannel.h"
#include "MediaClock.h"
#include "Outbox.h"
#include "RequestHandler.h"
#include "TimerQueue.h"

#include <sys/resource.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

// A folder that is gone, with its contents, after the test.
class CTempFolder
{
public:
    CTempFolder();
    ~CTempFolder();
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    std::string Path(const std::string& strName) const;
    const std::string& Folder() const;

private:
    std::string m_strFolder;
};

// Takes the driver's log while it lives.
class CLogCapture
{
public:
    CLogCapture();
    ~CLogCapture();
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    std::string Text() const;

private:
    std::ostringstream m_stream;
};

// Keeps files from growing past a size while it lives, which is how a full disk looks to a writer.
class CFileSizeLimit
{
public:
    explicit CFileSizeLimit(rlim_t nBytes);
    ~CFileSizeLimit();
    CFileSizeLimit(const CFileSizeLimit&) = delete;
    CFileSizeLimit& operator=(const CFileSizeLimit&) = delete;

private:
    rlimit m_former = {};
};

// One byte of µ-law per sample.
using CSamples = std::vector<std::uint8_t>;

// Samples in which every µ-law byte occurs, different for each seed.
CSamples Noise(std::size_t nCount, unsigned nSeed = 1);
CSamples Slice(const CSamples& samples, std::size_t nBegin, std::size_t nEnd);
CSamples operator+(const CSamples& left, const CSamples& right);

// Files made by libsndfile itself, or byte by byte.
void WriteULaw(const std::string& strPath, int nContainer, const CSamples& samples);
void WriteShorts(const std::string& strPath, int nFormat, int nRate, int nChannels, const std::vector<short>& vShorts);
void WriteBytes(const std::string& strPath, const CSamples& bytes);

// A compressed file of many samples that is damaged in its middle. Whatever its name, the format is known.
void WriteDamagedFlac(const std::string& strPath);
CSamples ReadBytes(const std::string& strPath);

// The samples of a µ-law file at 8000 per second, mono. Any other file is a failure of the test.
CSamples ReadULawFile(const std::string& strPath, int nContainer);
CSamples ReadULawWav(const std::string& strPath);

// A record with every byte of its body set, as one with a past would have it.
structMICMD Command(MICMD micmd, int nConnectID, std::uint32_t nSequenceNo);

template <std::size_t nSize> void SetText(char (&szField)[nSize], const std::string& strText)
{
    std::memset(szField, 0, nSize);
    std::memcpy(szField, strText.data(), std::min(strText.size(), nSize));
}

// What a client in memory got, and how it behaves.
struct CMemoryClient
{
    std::vector<structMIRSP> m_vResponses;
    std::vector<structMIEVT> m_vEvents;
    std::vector<std::string> m_vOrder; // "response 5", "event 5"
    std::size_t m_nRoom = SIZE_MAX;    // events that still fit
    bool m_bResponsesFull = false;
    bool m_bGone = false;
    bool m_bProcessGone = false;
    std::function<void()> m_broken; // what the driver wants to hear of
    std::function<void()> m_writable;
    bool m_bWatchesRoom = false;
    bool m_bPortOpen = false;
};

class CMemoryOpener : public CClientPortOpener
{
public:
    std::unique_ptr<CClientPort> Open(const structMICMD::ConnectBody& connect, std::string& strError) override;

    std::map<pid_t, CMemoryClient> m_mapClientByProcess;
};

// Stands still until it is moved.
class CManualClock : public CClock
{
public:
    TimePoint Now() const override { return m_now; }

    TimePoint m_now = TimePoint(std::chrono::hours(1));
};

// Keeps what is posted until it is told to run it, in order.
class CManualExecutor : public CExecutor
{
public:
    void Post(Function work, Function done) override;

    // Runs the oldest piece of work and what is to be done for it. False when there was none.
    bool RunOne();
    void RunAll();

private:
    std::deque<std::pair<Function, Function>> m_queue;
};

// The whole driver but for pipes and clock: requests go in as calls, time passes as calls. Loading and
// writing happen at once, unless other executors are given.
class CDriverInMemory
{
public:
    CDriverInMemory();
    CDriverInMemory(CExecutor& loader, CExecutor& disk, CFileChannelOptions options = {});
    ~CDriverInMemory();

    // Connects the process and returns its connect id, 0 when it got none.
    int Connect(pid_t nProcessID);
    CMemoryClient& Client(pid_t nProcessID = 100);

    // Hands over a request of a client and returns the response; one of all zeros if there was none.
    structMIRSP Request(const structMICMD& cmd, pid_t nProcessID = 100);

    // Requests of process 100. Ids are 0 when refused; the others say whether it was done.
    int OpenStream(const std::string& strCallID, std::uint32_t nLegID = 1);
    int OpenFile(const std::string& strPath);
    bool PlayClip(int nStreamID, int nFileID, std::uint32_t nOffset, std::uint32_t nLength);
    bool PlayFile(int nStreamID, const std::string& strPath, std::uint32_t nStartPos);
    bool RecordFile(int nStreamID, const std::string& strPath, std::uint32_t nMaxSamples);
    bool Cancel(int nStreamID, std::uint32_t nCancelType);
    structMIRSP StreamRequest(MICMD micmd, int nStreamID);

    // Hands over a request and lets everything due happen, whether it is answered or not.
    void Send(const structMICMD& cmd);

    // The same for a play of a file from its start. Returns the request's number.
    std::uint32_t SendPlayFile(int nStreamID, const std::string& strPath);
    void Ticks(int nTicks);

    // Lets time pass for late answers and events.
    void Pass(std::chrono::milliseconds time);

    // Of the last request.
    std::uint32_t Sequence() const;
    std::string Path(const std::string& strName) const;
    std::shared_ptr<CStream> Stream(int nStreamID);

    // A record of process 100, with the next number.
    structMICMD Next(MICMD micmd);

    CTempFolder m_folder;
    CLogCapture m_log;
    CInlineExecutor m_inline;
    CManualClock m_clock;
    CTimerQueue m_timers{m_clock};
    CStatistics m_statistics;
    CFaultRules m_faults;
    CExecutor& m_disk;
    CClipStore m_clipStore;
    CFileChannelFactory m_channels;
    CMemoryOpener m_opener;
    CMediaClock m_mediaClock;
    CClientRegistry m_registry{m_statistics};
    COutbox m_outbox{m_registry, m_faults, m_timers, m_statistics};
    std::vector<std::string> m_vHooks; // "die", "freeze", "freeze 100"
    CRequestHandler m_handler;
    int m_nConnectID = 0; // of process 100

private:
    std::uint32_t m_nSequenceNo = 0;
};

bool operator==(const structMIEVT& left, const structMIEVT& right);
void PrintTo(const structMIEVT& evt, std::ostream* pStream);

#endif
