// How many channels the reference driver serves on one core: lateness of the media tick, processor time
// per channel, memory per idle channel. Prints a table and writes it as JSON.
#include "Places.h"
#include "ProgramSupport.h"

#include <nlohmann/json.hpp>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{
using Json = nlohmann::ordered_json;

constexpr uint16_t REMOTE_PORT = 20000;
constexpr int RTP_CHANNELS = 2000;
constexpr const char* SOCKET = "/tmp/scale.sock";

void require(bool bOk, const char* pWhat)
{
    if (!bOk)
        throw std::runtime_error(pWhat);
}

void pinThread(pid_t nThread, int nCpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(nCpu), &set);
    require(::sched_setaffinity(nThread, sizeof(set), &set) == 0, "cannot pin a thread to a core");
}

void pinProcess(pid_t nProcess, int nCpu)
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(nProcess) + "/task"))
        pinThread(std::stoi(entry.path().filename()), nCpu);
}

std::chrono::nanoseconds cpuTime(pid_t nProcess)
{
    clockid_t clock = 0;
    timespec time = {};
    require(::clock_getcpuclockid(nProcess, &clock) == 0 && ::clock_gettime(clock, &time) == 0,
            "the driver has no processor clock");
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// Of all processor time that the process has used, how much the kernel used for it.
double kernelShare(pid_t nProcess)
{
    std::ifstream stat("/proc/" + std::to_string(nProcess) + "/stat");
    std::string strField;
    double dUser = 0.0;
    double dKernel = 0.0;
    for (int nField = 1; nField <= 13; ++nField)
        stat >> strField;
    stat >> dUser >> dKernel;
    return dUser + dKernel > 0.0 ? dKernel / (dUser + dKernel) : 0.0;
}

// Memory of its own, without that of mapped files.
size_t anonymousBytes(pid_t nProcess)
{
    std::ifstream status("/proc/" + std::to_string(nProcess) + "/status");
    for (std::string strLine; std::getline(status, strLine);)
        if (strLine.starts_with("RssAnon:"))
            return std::stoul(strLine.substr(std::strlen("RssAnon:"))) * 1024;
    throw std::runtime_error("the driver's memory cannot be told");
}

// The far ends of the RTP channels: they take what comes and count it.
class CSinks
{
public:
    explicit CSinks(int nCount)
    {
        m_fdEpoll = CFd(::epoll_create1(EPOLL_CLOEXEC));
        for (int nSink = 0; nSink < nCount; ++nSink)
        {
            m_vfdSinks.emplace_back(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            sockaddr_in address = {};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            address.sin_port = htons(static_cast<uint16_t>(REMOTE_PORT + nSink));
            sockaddr generic = {};
            std::memcpy(&generic, &address, sizeof(generic));
            require(::bind(m_vfdSinks.back().get(), &generic, sizeof(address)) == 0, "cannot bind a far end");
            epoll_event event = {};
            event.events = EPOLLIN;
            event.data.fd = m_vfdSinks.back().get();
            require(::epoll_ctl(m_fdEpoll.get(), EPOLL_CTL_ADD, event.data.fd, &event) == 0, "cannot watch a far end");
        }
        m_thread = std::thread([this] { run(); });
    }
    ~CSinks()
    {
        m_bStop = true;
        m_thread.join();
    }
    CSinks(const CSinks&) = delete;
    CSinks& operator=(const CSinks&) = delete;

    uint64_t packets() const { return m_ullPackets; }

private:
    void run()
    {
        std::array<epoll_event, 256> events;
        std::array<char, 2048> abPacket;
        while (!m_bStop)
        {
            const int nEvents = ::epoll_wait(m_fdEpoll.get(), events.data(), static_cast<int>(events.size()), 100);
            for (int nEvent = 0; nEvent < nEvents; ++nEvent)
                while (::recv(events[static_cast<size_t>(nEvent)].data.fd, abPacket.data(), abPacket.size(), 0) > 0)
                    ++m_ullPackets;
        }
    }

    CFd m_fdEpoll;
    std::vector<CFd> m_vfdSinks;
    std::atomic<uint64_t> m_ullPackets = 0;
    std::atomic<bool> m_bStop = false;
    std::thread m_thread;
};

// The driver on core 0, and a client on core 1 that plays on all channels at once.
class CScene
{
public:
    CScene()
        : m_driver({"--channels", "/tmp/scale.json", "--control", SOCKET, "--log", "/tmp/scale.log", "--log-level",
                    "warning"})
    {
        require(m_driver.waitReady(), "the driver does not start");
        pinProcess(m_driver.processID(), 0);
        require(m_client.connect(), "the driver does not answer");
    }

    void open(const std::string& strCall, int nCount, int nFirstLeg = 0)
    {
        for (int nLeg = nFirstLeg; nLeg < nFirstLeg + nCount; ++nLeg)
        {
            m_vStreams.push_back(m_client.openStream(strCall, static_cast<uint32_t>(nLeg)));
            require(m_vStreams.back() != 0, "a channel cannot be opened");
        }
    }

    void play()
    {
        const int nFile = m_client.openFile("/tmp/clip.ul");
        require(nFile != 0, "the clip cannot be opened");
        for (const int nStream : m_vStreams)
            require(m_client.playClip(nStream, nFile, 0, 0xFFFFFFFF), "a play cannot be started");
    }

    size_t memory() const { return anonymousBytes(m_driver.processID()); }
    double kernel() const { return kernelShare(m_driver.processID()); }
    std::chrono::nanoseconds cpu() const { return cpuTime(m_driver.processID()); }

    Json statistics() const
    {
        const std::string strCommand =
            REFERENCE_DRIVER_PROGRAM + std::string(" ctl --control ") + SOCKET + " stats > /tmp/scale-stats.json";
        require(std::system(strCommand.c_str()) == 0, "the driver does not tell its statistics");
        std::ifstream file("/tmp/scale-stats.json");
        return Json::parse(file).at("stats");
    }

private:
    CDriverProgram m_driver;
    CRawClient m_client;
    std::vector<int> m_vStreams;
};

struct CRow
{
    std::string m_strName;
    int m_nChannels = 0;
    double m_dCpuPercent = 0.0;
    double m_dKernelPercent = 0.0; // of the processor time
    double m_dMicroseconds = 0.0;  // of processor time for a second of one channel
    uint64_t m_ullTicks = 0;
    uint64_t m_ullLate = 0; // by more than 5 ms
    double m_dMaxLateMs = 0.0;
    double m_dMaxDurationMs = 0.0;
    uint64_t m_ullPackets = 0; // that arrived, of those expected
    uint64_t m_ullExpected = 0;

    double onTimePercent() const
    {
        return m_ullTicks == 0 ? 0.0
                               : 100.0 * static_cast<double>(m_ullTicks - m_ullLate) / static_cast<double>(m_ullTicks);
    }
};

// Plays on all channels of the scene for some time.
CRow measure(CScene& scene, const std::string& strName, int nChannels, int nRtpChannels, const CSinks* pSinks,
             std::chrono::seconds time)
{
    scene.play();
    const Json before = scene.statistics().at("ticks");
    const auto cpuBefore = scene.cpu();
    const uint64_t ullPackets = pSinks != nullptr ? pSinks->packets() : 0;
    std::this_thread::sleep_for(time);
    const auto cpu = scene.cpu() - cpuBefore;
    const Json after = scene.statistics().at("ticks");

    CRow row;
    row.m_strName = strName;
    row.m_nChannels = nChannels;
    const double dSeconds = std::chrono::duration<double>(time).count();
    row.m_dCpuPercent = std::chrono::duration<double>(cpu).count() / dSeconds * 100.0;
    row.m_dMicroseconds = std::chrono::duration<double, std::micro>(cpu).count() / dSeconds / nChannels;
    row.m_dKernelPercent = scene.kernel() * 100.0;
    row.m_ullTicks = after.at("count").get<uint64_t>() - before.at("count").get<uint64_t>();
    row.m_ullLate = after.at("late").get<uint64_t>() - before.at("late").get<uint64_t>();
    row.m_dMaxLateMs = after.at("lateness").at("max_ms").get<double>();
    row.m_dMaxDurationMs = after.at("duration").at("max_ms").get<double>();
    row.m_ullPackets = pSinks != nullptr ? pSinks->packets() - ullPackets : 0;
    row.m_ullExpected = row.m_ullTicks * static_cast<uint64_t>(nRtpChannels);
    return row;
}

// Bytes that the driver has in use more for each of so many open channels.
double idleBytes(const std::string& strCall, int nChannels)
{
    CScene scene;
    scene.open(strCall, 100); // what comes once
    const size_t nBefore = scene.memory();
    scene.open(strCall, nChannels, 100);
    return static_cast<double>(scene.memory() - nBefore) / nChannels;
}

void writeFiles()
{
    // Ten minutes; the plays outlast every run.
    std::ofstream clip("/tmp/clip.ul", std::ios::binary);
    for (int nSample = 0; nSample < 600 * 8000; ++nSample)
        clip.put(static_cast<char>(nSample * 7));
    std::ofstream table("/tmp/scale.json");
    table << R"({"channels": [
        {"call": "null*", "type": "null"},
        {"call": "shared*", "type": "rtp", "local": "127.0.0.1:16000",
         "remote": "127.0.0.1:20000", "remotePortStep": 1},
        {"call": "own*", "type": "rtp", "local": "127.0.0.1:16001", "localPortStep": 1,
         "remote": "127.0.0.1:20000", "remotePortStep": 1}]})";
}

std::vector<CRow> measureAll(std::chrono::seconds time)
{
    std::vector<CRow> vRows;
    for (const int nChannels : {100, 1000, 5000})
    {
        CScene scene;
        scene.open("null", nChannels);
        vRows.push_back(measure(scene, "null", nChannels, 0, nullptr, time));
    }
    for (const char* pSockets : {"shared", "own"})
    {
        for (const bool bNull : {false, true})
        {
            const CSinks sinks(RTP_CHANNELS);
            CScene scene;
            const int nNull = bNull ? 5000 : 0;
            scene.open("null", nNull);
            scene.open(pSockets, RTP_CHANNELS);
            const std::string strName =
                std::string(bNull ? "null + " : "") + "rtp, " + pSockets + " socket" + (pSockets[0] == 'o' ? "s" : "");
            vRows.push_back(measure(scene, strName, nNull + RTP_CHANNELS, RTP_CHANNELS, &sinks, time));
        }
    }
    return vRows;
}

void print(const std::vector<CRow>& vRows)
{
    std::printf("%-26s %8s %8s %7s %9s %9s %10s %10s %8s\n", "playing at once", "channels", "core", "kernel",
                "us/chan/s", "on time", "latest", "longest", "packets");
    for (const CRow& row : vRows)
    {
        std::printf("%-26s %8d %7.1f%% %6.0f%% %9.2f %8.3f%% %7.2f ms %7.2f ms", row.m_strName.c_str(), row.m_nChannels,
                    row.m_dCpuPercent, row.m_dKernelPercent, row.m_dMicroseconds, row.onTimePercent(), row.m_dMaxLateMs,
                    row.m_dMaxDurationMs);
        if (row.m_ullExpected > 0)
        {
            std::printf(" %7.2f%%",
                        100.0 * static_cast<double>(row.m_ullPackets) / static_cast<double>(row.m_ullExpected));
        }
        std::puts("");
    }
}

bool goal(const char* pText, double dValue, double dLimit, const char* pUnit, bool bAtLeast = false)
{
    const bool bMet = bAtLeast ? dValue >= dLimit : dValue <= dLimit;
    std::printf("%-62s %10.3f %s (goal: %s %g): %s\n", pText, dValue, pUnit, bAtLeast ? "at least" : "at most", dLimit,
                bMet ? "met" : "NOT met");
    return bMet;
}

Json toJson(const CRow& row)
{
    return {{"name", row.m_strName},
            {"channels", row.m_nChannels},
            {"core_percent", row.m_dCpuPercent},
            {"kernel_percent", row.m_dKernelPercent},
            {"us_per_channel_second", row.m_dMicroseconds},
            {"ticks", row.m_ullTicks},
            {"late_ticks", row.m_ullLate},
            {"latest_ms", row.m_dMaxLateMs},
            {"longest_tick_ms", row.m_dMaxDurationMs},
            {"packets", row.m_ullPackets},
            {"packets_expected", row.m_ullExpected}};
}
} // namespace

// driver-scale [SECONDS [JSON-FILE]]
int main(int nArguments, char** ppArguments)
{
    try
    {
        const std::chrono::seconds time(nArguments > 1 ? std::stoi(ppArguments[1]) : 20);
        pinThread(0, 1);
        writeFiles();
        const std::vector<CRow> vRows = measureAll(time);
        const double dNull = idleBytes("null", 5000);
        const double dRtp = idleBytes("own", RTP_CHANNELS);
        print(vRows);
        goal("ticks at most 5 ms late, 5000 null + 2000 rtp (shared socket)", vRows[4].onTimePercent(), 99.9, "%",
             true);
        goal("ticks at most 5 ms late, 5000 null + 2000 rtp (own sockets)", vRows[6].onTimePercent(), 99.9, "%", true);
        goal("processor time of a null channel among 5000, to one among 100",
             vRows[2].m_dMicroseconds / vRows[0].m_dMicroseconds, 1.2, "times");
        goal("memory of an idle null channel", dNull, 2048, "bytes");
        goal("memory of an idle rtp channel with a socket of its own", dRtp, 2048, "bytes");
        std::printf(
            "limit: the core. At this rate %.0f rtp channels with a shared socket fill it, or %.0f with their own; "
            "%.0f %% and %.0f %% of that time the kernel sends.\n",
            RTP_CHANNELS / vRows[3].m_dCpuPercent * 100.0, RTP_CHANNELS / vRows[5].m_dCpuPercent * 100.0,
            vRows[3].m_dKernelPercent, vRows[5].m_dKernelPercent);
        if (nArguments > 2)
        {
            Json json = {{"seconds", time.count()}, {"idle_null_bytes", dNull}, {"idle_rtp_bytes", dRtp}};
            for (const CRow& row : vRows)
                json["rows"].push_back(toJson(row));
            std::ofstream(ppArguments[2]) << json.dump(2) << '\n';
        }
        return 0;
    }
    catch (const std::exception& exception)
    {
        std::fprintf(stderr, "driver-scale: %s\n", exception.what());
        return 1;
    }
}
