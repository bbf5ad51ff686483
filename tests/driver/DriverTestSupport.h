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

    std::string path(const std::string& strName) const;
    const std::string& folder() const;

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

    std::string text() const;

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
using CSamples = std::vector<uint8_t>;

// Samples in which every µ-law byte occurs, different for each seed.
CSamples noise(size_t nCount, unsigned nSeed = 1);
CSamples slice(const CSamples& samples, size_t nBegin, size_t nEnd);
CSamples operator+(const CSamples& left, const CSamples& right);

// Files made by libsndfile itself, or byte by byte.
void writeULaw(const std::string& strPath, int nContainer, const CSamples& samples);
void writeShorts(const std::string& strPath, int nFormat, int nRate, int nChannels, const std::vector<short>& vShorts);
void writeBytes(const std::string& strPath, const CSamples& bytes);

// A compressed file of many samples that is damaged in its middle. Whatever its name, the format is known.
void writeDamagedFlac(const std::string& strPath);
CSamples readBytes(const std::string& strPath);

// The samples of a µ-law file at 8000 per second, mono. Any other file is a failure of the test.
CSamples readULawFile(const std::string& strPath, int nContainer);
CSamples readULawWav(const std::string& strPath);

// A record with every byte of its body set, as one with a past would have it.
structMICMD command(MICMD micmd, int nConnectID, uint32_t nSequenceNo);

template <size_t nSize> void setText(char (&szField)[nSize], const std::string& strText)
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
    size_t m_nRoom = SIZE_MAX;         // events that still fit
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
    std::unique_ptr<CClientPort> open(const structMICMD::ConnectBody& connect, std::string& strError) override;

    std::map<pid_t, CMemoryClient> m_mapClientByProcess;
};

// Stands still until it is moved.
class CManualClock : public CClock
{
public:
    TimePoint now() const override { return m_now; }

    TimePoint m_now = TimePoint(std::chrono::hours(1));
};

// Keeps what is posted until it is told to run it, in order.
class CManualExecutor : public CExecutor
{
public:
    void post(Function work, Function done) override;

    // Runs the oldest piece of work and what is to be done for it. False when there was none.
    bool runOne();
    void runAll();

private:
    std::deque<std::pair<Function, Function>> m_queue;
};

// The whole driver but for pipes and clock: requests go in as calls, time passes as calls. Loading and
// writing happen at once, unless other executors are given.
class CDriverInMemory
{
public:
    CDriverInMemory();
    CDriverInMemory(CExecutor& loader, CExecutor& disk, CFileChannelOptions options = {},
                    const CRequestHandler::CLimits& limits = {10000, 10000});
    ~CDriverInMemory();

    // Connects the process and returns its connect id, 0 when it got none.
    int connect(pid_t nProcessID);
    CMemoryClient& client(pid_t nProcessID = 100);

    // Hands over a request of a client and returns the response; one of all zeros if there was none.
    structMIRSP request(const structMICMD& cmd, pid_t nProcessID = 100);

    // Requests of process 100. Ids are 0 when refused; the others say whether it was done.
    int openStream(const std::string& strCallID, uint32_t nLegID = 1);
    int openFile(const std::string& strPath);
    bool playClip(int nStreamID, int nFileID, uint32_t nOffset, uint32_t nLength);
    bool playFile(int nStreamID, const std::string& strPath, uint32_t nStartPos);
    bool recordFile(int nStreamID, const std::string& strPath, uint32_t nMaxSamples);
    bool cancel(int nStreamID, uint32_t nCancelType);
    structMIRSP streamRequest(MICMD micmd, int nStreamID);

    // Hands over a request and lets everything due happen, whether it is answered or not.
    void send(const structMICMD& cmd);

    // The same for a play of a file from its start. Returns the request's number.
    uint32_t sendPlayFile(int nStreamID, const std::string& strPath);
    void ticks(int nTicks);

    // Lets time pass for late answers and events.
    void pass(std::chrono::milliseconds time);

    // Of the last request.
    uint32_t sequence() const;
    std::string path(const std::string& strName) const;
    std::shared_ptr<CStream> stream(int nStreamID);

    // A record of process 100, with the next number.
    structMICMD next(MICMD micmd);

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
    uint32_t m_nSequenceNo = 0;
};

bool operator==(const structMIEVT& left, const structMIEVT& right);
void printTo(const structMIEVT& evt, std::ostream* pStream);

#endif
