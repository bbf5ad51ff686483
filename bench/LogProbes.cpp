// Probes of the log: a typical line into the default file, what else could write it, and masked lines.
#include "LibraryUnderTest.h"
#include "OrvLogLib.h"
#include "Probe.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{
using Clock = std::chrono::steady_clock;

constexpr unsigned long TRACE_CLASS = 1;
constexpr const char* COMMAND = "MICMD_PLAYFILE";
constexpr int STREAM_ID = 4711;

// A log may treat the first lines differently from those that go on to come fast, so both are measured.
constexpr int64_t LINES_BEFORE = 20'000;
constexpr int64_t FIRST_LINES = 5'000;

// Files are no longer than this, so that none is rotated or fills the private /tmp.
constexpr int64_t LINES_PER_FILE = 200'000;

// The folder that the default log file is written to.
std::string logFolder()
{
    const std::string strSystem = "/var/log/zelmedia";
    return std::filesystem::is_directory(strSystem) && ::access(strSystem.c_str(), W_OK | X_OK) == 0 ? strSystem
                                                                                                     : "/tmp";
}

// One way to write the typical line, from any thread.
class CLineWriter
{
public:
    virtual ~CLineWriter() = default;
    virtual void write(int64_t nLines) = 0;
};

// The log file as the library makes it for itself.
class COwnLog : public CLineWriter
{
public:
    COwnLog()
        : m_strPath(logFolder() + "/Media-p" + std::to_string(::getpid()) + ".log"), m_pLogFile(newDefaultLog()),
          m_pRegistry(newDefaultRegistry(m_pLogFile.get()))
    {
        write(1);
        if (!std::filesystem::exists(m_strPath))
            throw std::runtime_error("the log file is not where it should be");
    }
    ~COwnLog() override
    {
        m_pLogFile.reset();
        ::unlink(m_strPath.c_str());
    }

    void write(int64_t nLines) override
    {
        for (int64_t n = 0; n < nLines; ++n)
        {
            m_pLogFile->TraceString(TRACE_CLASS, OrvLogLib::LogLib_Normal,
                                    "(Info) CMIntf::sendCommand, cmd %s, sequence number %lu, m_nStreamID = %d",
                                    COMMAND, static_cast<unsigned long>(n), STREAM_ID);
        }
    }

private:
    std::string m_strPath;
    std::unique_ptr<OrvLogLib::CLogFile> m_pLogFile;
    std::unique_ptr<OrvLogLib::CLogFileRegistry> m_pRegistry;
};

// The same bytes by one snprintf and one write each. What stays the same from line to line is
// asked for once: the second's text, process and thread.
class CPlainLog : public CLineWriter
{
public:
    CPlainLog()
        : m_strPath(logFolder() + "/PlainProbe-p" + std::to_string(::getpid()) + ".log"),
          m_nFile(::open(m_strPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_TRUNC | O_CLOEXEC, 0640))
    {
        if (m_nFile < 0)
            throw std::runtime_error("cannot create " + m_strPath);
        write(1);
    }
    ~CPlainLog() override
    {
        ::close(m_nFile);
        ::unlink(m_strPath.c_str());
    }

    void write(int64_t nLines) override
    {
        const int nProcess = ::getpid();
        const int nThread = ::gettid();
        time_t tSecond = -1;
        char szSecond[32] = "";
        char szLine[512];
        for (int64_t n = 0; n < nLines; ++n)
        {
            timespec now;
            ::clock_gettime(CLOCK_REALTIME, &now);
            if (now.tv_sec != tSecond)
            {
                tm parts = {};
                ::localtime_r(&now.tv_sec, &parts);
                std::strftime(szSecond, sizeof(szSecond), "%Y-%m-%d %H:%M:%S", &parts);
                tSecond = now.tv_sec;
            }
            const int nLength = std::snprintf(
                szLine, sizeof(szLine),
                "%s.%06ld p%d t%d %d (Info) CMIntf::sendCommand, cmd %s, sequence number %lu, "
                "m_nStreamID = %d\n",
                szSecond, static_cast<long>(now.tv_nsec / 1000), nProcess, nThread,
                static_cast<int>(OrvLogLib::LogLib_Normal), COMMAND, static_cast<unsigned long>(n), STREAM_ID);
            if (::write(m_nFile, szLine, static_cast<size_t>(nLength)) != nLength)
                throw std::runtime_error("a line was not written");
        }
    }

private:
    std::string m_strPath;
    int m_nFile;
};

// The same bytes by spdlog's file sink, which gathers lines in the memory of the process.
class CSpdlogLog : public CLineWriter
{
public:
    CSpdlogLog()
        : m_strPath(logFolder() + "/SpdlogProbe-p" + std::to_string(::getpid()) + ".log"),
          m_logger("Media", std::make_shared<spdlog::sinks::basic_file_sink_mt>(m_strPath, true))
    {
        m_logger.set_pattern("%Y-%m-%d %H:%M:%S.%f p%P t%t 2 %v");
        write(1);
    }
    ~CSpdlogLog() override { ::unlink(m_strPath.c_str()); }

    void write(int64_t nLines) override
    {
        for (int64_t n = 0; n < nLines; ++n)
        {
            m_logger.info("(Info) CMIntf::sendCommand, cmd {}, sequence number {}, m_nStreamID = {}", COMMAND,
                          static_cast<unsigned long>(n), STREAM_ID);
        }
    }

private:
    std::string m_strPath;
    spdlog::logger m_logger;
};

struct CLoad
{
    int m_nThreads = 1;
    bool m_bAllCores = false; // instead of that of the worker
    int64_t m_nLinesBefore = LINES_BEFORE;
    int64_t m_nLinesPerFile = LINES_PER_FILE;
};

void useAllCores()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    for (long n = 0; n < ::sysconf(_SC_NPROCESSORS_ONLN); ++n)
        CPU_SET(static_cast<unsigned long>(n), &set);
    ::sched_setaffinity(0, sizeof(set), &set);
}

// Lines written by some threads at once; the time of a line is the whole time by all lines.
template <class TWriter> class CLineProbe : public CProbe
{
public:
    explicit CLineProbe(const CLoad& load) : m_load(load) {}

    std::chrono::nanoseconds run(int64_t nLines) override
    {
        std::chrono::nanoseconds spent(0);
        for (int64_t nLeft = nLines; nLeft > 0; nLeft -= m_load.m_nLinesPerFile)
        {
            const int64_t nOfFile = std::min(nLeft, m_load.m_nLinesPerFile);
            TWriter writer;
            writer.write(m_load.m_nLinesBefore);
            spent += m_load.m_nThreads == 1 ? oneThread(writer, nOfFile) : manyThreads(writer, nOfFile);
        }
        return spent;
    }

private:
    static std::chrono::nanoseconds oneThread(CLineWriter& writer, int64_t nLines)
    {
        const auto start = Clock::now();
        writer.write(nLines);
        return Clock::now() - start;
    }

    // From the moment when all threads are there until the last of them is through.
    std::chrono::nanoseconds manyThreads(CLineWriter& writer, int64_t nLines) const
    {
        // Taken by the last thread to arrive: on one core the others may be through before this one runs.
        auto start = Clock::time_point::max();
        std::barrier barrier(m_load.m_nThreads + 1, [&start]() noexcept { start = std::min(start, Clock::now()); });
        std::vector<std::jthread> vThreads;
        for (int nThread = 0; nThread < m_load.m_nThreads; ++nThread)
        {
            const int64_t nShare = (nLines + nThread) / m_load.m_nThreads;
            vThreads.emplace_back([this, &writer, &barrier, nShare] {
                if (m_load.m_bAllCores)
                    useAllCores();
                barrier.arrive_and_wait();
                writer.write(nShare);
                barrier.arrive_and_wait();
            });
        }
        barrier.arrive_and_wait();
        barrier.arrive_and_wait();
        return Clock::now() - start;
    }

    CLoad m_load;
};

// A line of a trace class that is off, by the log file's own door.
class CMaskedLineProbe : public CProbe
{
public:
    CMaskedLineProbe() : m_logFile("Media", nullptr, false, true, false) { m_logFile.setTraceMask(0); }

    std::chrono::nanoseconds run(int64_t nLines) override
    {
        const auto start = Clock::now();
        for (int64_t n = 0; n < nLines; ++n)
        {
            m_logFile.TraceString(TRACE_CLASS, OrvLogLib::LogLib_Normal,
                                  "(Info) CMIntf::sendCommand, cmd %s, sequence number %lu, m_nStreamID = %d", COMMAND,
                                  static_cast<unsigned long>(n), STREAM_ID);
        }
        return Clock::now() - start;
    }

private:
    OrvLogLib::CLogFile m_logFile;
};

// The same by the library's door, that of nearly all of its lines.
class CMaskedTraceProbe : public CProbe
{
public:
    CMaskedTraceProbe() { CLibraryUnderTest::get().setTrace(ETrace::Off); }

    std::chrono::nanoseconds run(int64_t nLines) override
    {
        CMIntf& mintf = CLibraryUnderTest::get().interface();
        const auto start = Clock::now();
        for (int64_t n = 0; n < nLines; ++n)
        {
            // As ZEL_TRACE does.
            if (mintf.isTraced(TRACE_CLASS))
            {
                mintf.trace(TRACE_CLASS, OrvLogLib::LogLib_Normal,
                            "(Info) CMIntf::sendCommand, cmd %s, sequence number %lu, m_nStreamID = %d", COMMAND,
                            static_cast<unsigned long>(n), STREAM_ID);
            }
        }
        return Clock::now() - start;
    }
};

template <class TWriter> void addLineProbes(CProbeTable& table, const std::string& strName)
{
    const auto add = [&](const std::string& strLoad, const CLoad& load) {
        table.add(strName + strLoad, [load] { return std::make_unique<CLineProbe<TWriter>>(load); });
    };
    add("/first", {1, false, 0, FIRST_LINES});
    add("/1", {});
    add("/4", {4});
    add("/16", {16});
    add("/4-spread", {4, true});
    add("/16-spread", {16, true});
}
} // namespace

void addLogProbes(CProbeTable& table)
{
    addLineProbes<COwnLog>(table, "log/own");
    addLineProbes<CPlainLog>(table, "log/plain");
    addLineProbes<CSpdlogLog>(table, "log/spdlog");
    table.add(
        "log/masked", [] { return std::make_unique<CMaskedLineProbe>(); });
    table.add("log/masked-trace", [] { return std::make_unique<CMaskedTraceProbe>(); });
}
