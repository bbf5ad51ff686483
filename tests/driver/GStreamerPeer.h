// GStreamer as the far end of RTP channels, and the speech that goes over the line.
#ifndef GSTREAMER_PEER_H
#define GSTREAMER_PEER_H

#include "Child.h"
#include "G711.h"
#include "Places.h"
#include "RtpTestSupport.h"
#include "WaitUntil.h"

#include <fcntl.h>

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
        std::istringstream stream("env GST_REGISTRY=/tmp/gst-registry.bin gst-launch-1.0 -q -e " + strPipeline);
        const std::vector<std::string> vWords{std::istream_iterator<std::string>(stream), {}};
        auto [fdRead, fdWrite] = pipe();
        auto [fdStarted, fdStarting] = pipe();
        m_fdInput = std::move(fdWrite);
        m_process.start(vWords, {.m_nInput = fdRead.get()});
        // Until the program runs, the process has our sockets among its own.
        fdStarting.close();
        char c = 0;
        EXPECT_EQ(::read(fdStarted.get(), &c, 1), 0);
    }

    void feed(const CBytes& bytes)
    {
        EXPECT_EQ(::write(m_fdInput.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        m_fdInput.close();
    }

    // Whether it runs; fails the test if it has ended otherwise than well.
    bool isRunning()
    {
        const bool bRunning = m_process.isRunning();
        if (!bRunning && m_process.processID() > 0)
            EXPECT_EQ(m_process.waitExit(), 0) << "gst-launch-1.0 failed, or is not installed";
        return bRunning;
    }

    // The address of its UDP socket, as soon as it has one.
    CNetAddress waitAddress()
    {
        uint16_t nPort = 0;
        waitUntil([&] { return !isRunning() || (nPort = boundPort()) != 0; }, PEER_DEADLINE);
        EXPECT_NE(nPort, 0) << "gst-launch-1.0 opened no socket";
        return loopback(nPort);
    }

    // Ends the streams and waits for the end of the process.
    void finish()
    {
        m_process.signal(SIGINT);
        EXPECT_TRUE(waitUntil([this] { return !isRunning(); }, PEER_DEADLINE));
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
        const std::string strProcess = "/proc/" + std::to_string(m_process.processID());
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

    CChild m_process;
    CFd m_fdInput;
};

#endif
