// Child processes of tests and measurements: programs, and parts of the test itself.
#ifndef CHILD_H
#define CHILD_H

#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#ifdef ZELMEDIA_COVERAGE
extern "C" void __gcov_dump();
#endif

// Ends a child process that must not clean up what is its parent's. Inline, as each library covers its own lines.
[[noreturn]] inline void endChild(int nStatus)
{
#ifdef ZELMEDIA_COVERAGE
    const rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &unlimited);
    __gcov_dump(); // what it has covered
#endif
    _exit(nStatus);
}

// Is killed with this object or with the thread that started it, whichever ends first.
class CChild
{
public:
    // Descriptors for its standard streams, and the only ones; -1 for ours.
    struct CStreams
    {
        int m_nInput = -1;
        int m_nOutput = -1;
        int m_nErrors = -1;
    };

    // Nothing runs before start.
    CChild() = default;
    ~CChild() { kill(); }
    CChild(const CChild&) = delete;
    CChild& operator=(const CChild&) = delete;

    // Kills what it ran before.
    // A program with its arguments, looked for in PATH where its name has no slash. It ends with 127 where there is
    // none.
    bool start(const std::vector<std::string>& vWords, const CStreams& streams);
    bool start(const std::vector<std::string>& vWords) { return start(vWords, CStreams{}); }

    // Work that returns the exit code, and -1 where it throws. Nothing of the parent's is cleaned up.
    bool start(const std::function<int()>& work);

    // -1 when its end was waited for.
    pid_t processID() const { return m_nProcessID; }
    bool isRunning() const;
    void signal(int nSignal) const;
    // Stops it, and waits until it has stopped.
    void freeze() const;
    void kill();

    // Waits for its end. The exit code, or minus the signal that killed it; none where it goes on or was never started.
    std::optional<int> waitExit(std::chrono::milliseconds limit = std::chrono::seconds(60));

private:
    pid_t m_nProcessID = -1;
};

// A file for the standard output of a child, made anew; the caller closes it.
int openOutput(const std::string& strPath);

#endif
