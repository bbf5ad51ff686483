// What the tests of the built library on real pipes have in common, on top of ServicesFixture.h.
#ifndef SYSTEM_FIXTURE_H
#define SYSTEM_FIXTURE_H

#include "Files.h"
#include "ServicesFixture.h"
#include "WaitUntil.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using CHandler = CZelMediaStreamCompletionHandler;

inline std::string responsePipe()
{
    return MI_RESPONSE_PIPE_PREFIX + std::to_string(getpid());
}

inline std::string eventPipe()
{
    return MI_EVENT_PIPE_PREFIX + std::to_string(getpid());
}

// A line of a file below /proc/self/task, by its beginning; what follows it.
inline std::string taskLine(pid_t nThread, const char* pszFile, const std::string& strBegin)
{
    std::ifstream file("/proc/self/task/" + std::to_string(nThread) + "/" + pszFile);
    for (std::string strLine; std::getline(file, strLine);)
        if (strLine.starts_with(strBegin))
            return strLine.substr(strBegin.size());
    return "";
}

// The thread that the library started, by its name; 0 when there is none.
inline pid_t eventThread()
{
    for (const std::string& strTask : namesIn("/proc/self/task"))
    {
        const pid_t nThread = std::stoi(strTask);
        if (taskLine(nThread, "comm", "") == "ZelMedia")
            return nThread;
    }
    return 0;
}

// Waits until the event thread, which sleeps once in each of its rounds, has gone round as often.
inline bool waitEventThreadRounds(long nRounds)
{
    const auto sleeps = [nThread = eventThread()] {
        return std::stol("0" + taskLine(nThread, "status", "voluntary_ctxt_switches:\t"));
    };
    const long nEnd = sleeps() + nRounds + 1; // it may be at the end of one
    return waitUntil([&] { return sleeps() >= nEnd; });
}

// Keeps the streams it opens and closes them at the end of the test: no command may outlive the
// services object that it reports to.
class CSystemTest : public CServicesTest
{
protected:
    ~CSystemTest() override
    {
        for (CZelMediaStream* const pStream : m_vStreams)
            m_pServices->closeMediaStream(pStream);
    }

    CZelMediaStream* open(const std::string& strCallID = "call-1")
    {
        CZelMediaStream* const pStream = openStream(strCallID);
        if (pStream)
            m_vStreams.push_back(pStream);
        return pStream;
    }

    int tryOpen()
    {
        CZelMediaStream* pStream = nullptr;
        const int nStatus = m_pServices->openMediaStream(&pStream, "call-try", 1);
        if (pStream)
            m_vStreams.push_back(pStream);
        return nStatus;
    }

    static int play(CZelMediaStream* pStream, const std::string& strFile, unsigned long ulTimeout = 60, int nFlag = 0)
    {
        return pStream->playAddFile(text(strFile.c_str()), 0, ulTimeout, nFlag, 0, 0);
    }

    int record(CZelMediaStream* pStream, const std::string& strFile, unsigned long ulTimeout = 60, int nFlag = 0)
    {
        return pStream->recordToFile(text(strFile.c_str()), 0, 5, ulTimeout, nFlag);
    }

    int recordWithPrompt(CZelMediaStream* pStream, unsigned long ulFileID, const std::string& strFile,
                         unsigned long ulTimeout = 60, int nFlag = 0)
    {
        return pStream->recordToFileWithPromptPhrase(ulFileID, 0, 800, text(strFile.c_str()), 0, 5, ulTimeout, nFlag);
    }

    unsigned long openPhraseFile(const std::string& strFile)
    {
        unsigned long ulFileID = 0;
        EXPECT_EQ(MCS_OK, m_pServices->openPhraseFile(text(strFile.c_str()), &ulFileID));
        return ulFileID;
    }

    // The files of all plays and recordings that the driver was asked for, in order.
    std::vector<std::string> filesAtDriver() const
    {
        std::vector<std::string> vFiles;
        for (const structMICMD& request : m_driver.requests())
            if (request.s_micmd == MICMD_PLAYFILE || request.s_micmd == MICMD_RECORDFILE)
                vFiles.push_back(request.playFile.szFileName);
        return vFiles;
    }

    // Returns once the event thread has dealt with every event that is in its pipe now.
    void drainEvents()
    {
        const int nMark = ++m_nMark;
        structMIEVT evt = {};
        evt.s_mievt = MIEVT_DONE;
        evt.nStreamID = MARK_STREAM;
        evt.nSequenceID = static_cast<uint32_t>(nMark);
        const int nPipe = ::open(eventPipe().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_EQ(static_cast<ssize_t>(sizeof(evt)), write(nPipe, &evt, sizeof(evt))) << strerror(errno);
        close(nPipe);
        const std::string strLine = "read event, nSequenceID = (" + std::to_string(nMark) + "), nStreamID = (" +
                                    std::to_string(MARK_STREAM) + ")";
        ASSERT_TRUE(waitUntil([&] { return m_pLog->count(strLine) == 1; }));
    }

    // Command records made and not destroyed since the log was taken over or cleared.
    long commandsAlive() const
    {
        long nAlive = 0;
        for (const CLogLine& line : m_pLog->lines())
        {
            nAlive += line.strText.rfind("(Info) CCommand::CCommand", 0) == 0;
            nAlive -= line.strText.rfind("(Info) CCommand::~CCommand", 0) == 0;
        }
        return nAlive;
    }
    bool waitCommandsAlive(long nExpected)
    {
        return waitUntil([&] { return commandsAlive() == nExpected; }, std::chrono::seconds(20));
    }

    // A driver that was there and is gone, noticed by a request that could not be written.
    void loseDriver()
    {
        m_driver.die();
        EXPECT_EQ(MCS_PIPEWRITE, tryOpen());
    }

private:
    static const int MARK_STREAM = -4711;
    int m_nMark = 0;
    std::vector<CZelMediaStream*> m_vStreams;
};

#endif
