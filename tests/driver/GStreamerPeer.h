// GStreamer as the far end of RTP channels, and the speech that goes over the line.
#ifndef GSTREAMER_PEER_H
#define GSTREAMER_PEER_H

#include "G711.h"
#include "Places.h"
#include "RtpTestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

constexpr std::chrono::seconds PEER_DEADLINE(30);

inline CBytes readFile(const std::string& strPath)
{
    std::ifstream file(strPath, std::ios::binary);
    return CBytes(std::istreambuf_iterator<char>(file), {});
}

// Part of the phrases that the tests play and record.
inline CBytes speech(size_t nSize)
{
    CBytes speech = readFile(std::string(ASSETS) + "/phrases.ul");
    EXPECT_GE(speech.size(), nSize);
    speech.resize(nSize);
    return speech;
}

inline CBytes converted(CBytes bytes, const CG711Table& table)
{
    std::transform(bytes.begin(), bytes.end(), bytes.begin(), [&table](uint8_t n) { return table[n]; });
    return bytes;
}

// A pipeline in a process of its own, killed if the test leaves it running.
class CPipeline
{
public:
    // The words of gst-launch-1.0 between blanks. Its standard input is what feed writes.
    explicit CPipeline(const std::string& strPipeline)
    {
        std::istringstream stream("gst-launch-1.0 -q -e " + strPipeline);
        std::vector<std::string> vWords{std::istream_iterator<std::string>(stream), {}};
        std::vector<char*> vArguments;
        for (std::string& strWord : vWords)
            vArguments.push_back(strWord.data());
        vArguments.push_back(nullptr);
        auto [fdRead, fdWrite] = pipe();
        auto [fdStarted, fdStarting] = pipe();
        m_fdInput = std::move(fdWrite);
        m_nProcessID = ::fork();
        if (m_nProcessID == 0)
        {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(fdRead.get(), STDIN_FILENO);
            ::setenv("GST_REGISTRY", "/tmp/gst-registry.bin", 1);
            ::execvp(vArguments[0], vArguments.data());
            ::_exit(127);
        }
        // Until the program runs, the process has our sockets among its own.
        fdStarting.close();
        char c = 0;
        EXPECT_EQ(::read(fdStarted.get(), &c, 1), 0);
    }
    CPipeline(const CPipeline&) = delete;
    CPipeline& operator=(const CPipeline&) = delete;
    ~CPipeline()
    {
        if (m_nProcessID > 0)
        {
            ::kill(m_nProcessID, SIGKILL);
            ::waitpid(m_nProcessID, nullptr, 0);
        }
    }

    void feed(const CBytes& bytes)
    {
        EXPECT_EQ(::write(m_fdInput.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        m_fdInput.close();
    }

    // Whether it runs; fails the test if it has ended otherwise than well.
    bool isRunning()
    {
        int nStatus = 0;
        if (m_nProcessID > 0 && ::waitpid(m_nProcessID, &nStatus, WNOHANG) == m_nProcessID)
        {
            m_nProcessID = -1;
            EXPECT_EQ(nStatus, 0) << "gst-launch-1.0 failed, or is not installed";
        }
        return m_nProcessID > 0;
    }

    // The address of its UDP socket, as soon as it has one.
    CNetAddress waitAddress()
    {
        const auto end = std::chrono::steady_clock::now() + PEER_DEADLINE;
        uint16_t nPort = 0;
        while (nPort == 0 && isRunning() && std::chrono::steady_clock::now() < end)
        {
            ::poll(nullptr, 0, 5);
            nPort = boundPort();
        }
        EXPECT_NE(nPort, 0) << "gst-launch-1.0 opened no socket";
        return loopback(nPort);
    }

    // Ends the streams and waits for the end of the process.
    void finish()
    {
        const auto end = std::chrono::steady_clock::now() + PEER_DEADLINE;
        ::kill(m_nProcessID, SIGINT);
        while (isRunning() && std::chrono::steady_clock::now() < end)
            ::poll(nullptr, 0, 5);
        EXPECT_EQ(m_nProcessID, -1);
    }

private:
    static std::pair<CFd, CFd> pipe()
    {
        int anFds[2] = {-1, -1};
        EXPECT_EQ(::pipe2(anFds, O_CLOEXEC), 0);
        return {CFd(anFds[0]), CFd(anFds[1])};
    }

    // Of its socket on 127.0.0.1 in the system's table, 0 while there is none.
    uint16_t boundPort() const
    {
        const std::string strProcess = "/proc/" + std::to_string(m_nProcessID);
        std::ifstream table(strProcess + "/net/udp");
        std::string strLine;
        while (std::getline(table, strLine))
        {
            std::istringstream line(strLine);
            const std::vector<std::string> vFields{std::istream_iterator<std::string>(line), {}};
            if (vFields.size() > 9 && vFields[1].starts_with("0100007F:") &&
                hasDescriptor(strProcess, "socket:[" + vFields[9] + "]"))
                return static_cast<uint16_t>(std::stoul(vFields[1].substr(9), nullptr, 16));
        }
        return 0;
    }

    static bool hasDescriptor(const std::string& strProcess, const std::string& strTarget)
    {
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(strProcess + "/fd", error))
            if (std::filesystem::read_symlink(entry.path(), error) == strTarget)
                return true;
        return false;
    }

    pid_t m_nProcessID = -1;
    CFd m_fdInput;
};

#endif
