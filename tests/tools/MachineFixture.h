// What the tests of status, clean and dump make in their /tmp: pipes of processes that live or have ended.
#ifndef MACHINE_FIXTURE_H
#define MACHINE_FIXTURE_H

#include "Child.h"
#include "MediaProtocol.h"
#include "SampleFiles.h"
#include "ToolRun.h"
#include "WaitUntil.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

inline int bytesIn(int nPipe)
{
    int nBytes = 0;
    ioctl(nPipe, FIONREAD, &nBytes);
    return nBytes;
}

// pszKind is "Rsp" or "Evt".
inline std::string pipePath(const char* pszKind, pid_t nProcessID)
{
    return std::string("/tmp/OrvMediaIntf-") + pszKind + "-p" + std::to_string(nProcessID);
}

inline void makePipes(pid_t nProcessID)
{
    for (const char* const pszKind : {"Rsp", "Evt"})
        mkfifo(pipePath(pszKind, nProcessID).c_str(), 0666);
}

// All that have the name of a client's pipe, sorted.
inline std::vector<std::string> clientPipes()
{
    std::vector<std::string> vPaths;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp"))
    {
        const std::string strPath = entry.path();
        if (strPath.starts_with(MI_RESPONSE_PIPE_PREFIX) || strPath.starts_with(MI_EVENT_PIPE_PREFIX))
            vPaths.push_back(strPath);
    }
    std::sort(vPaths.begin(), vPaths.end());
    return vPaths;
}

// The id of a process that is no more.
inline pid_t endedProcess()
{
    CChild child;
    child.start([] { return 0; });
    return child.processID();
}

// The client of this process id in the answer of "status --json".
inline nlohmann::json clientIn(const nlohmann::json& answer, pid_t nProcessID)
{
    for (const nlohmann::json& client : answer["clients"])
        if (client["process"] == nProcessID)
            return client;
    return nlohmann::json::object();
}

// A process that has its pipes open, as an application has; killed at the end.
class CPipeHolder
{
public:
    CPipeHolder()
    {
        m_process.start([] {
            makePipes(getpid());
            const int nResponse = open(pipePath("Rsp", getpid()).c_str(), O_RDWR | O_NONBLOCK);
            const int nEvent = open(pipePath("Evt", getpid()).c_str(), O_RDWR | O_NONBLOCK);
            // What it says when both are open.
            if (nResponse >= 0 && nEvent >= 0)
                writeFile("/tmp/holds-" + std::to_string(getpid()), "");
            return pause();
        });
        const std::string strSign = "/tmp/holds-" + std::to_string(processID());
        waitUntil([&strSign] { return std::filesystem::exists(strSign); });
    }
    pid_t processID() const { return m_process.processID(); }

private:
    CChild m_process;
};

#endif
