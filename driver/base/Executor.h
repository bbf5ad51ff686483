// Work that may block, done beside the loop.
#ifndef DRIVER_EXECUTOR_H
#define DRIVER_EXECUTOR_H

#include "Fd.h"
#include "Mutex.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

// Does its work in the order in which it was posted. Post is called on the loop's thread.
class CExecutor
{
public:
    using Function = std::function<void()>;

    virtual ~CExecutor() = default;

    // Runs work somewhere where it may block, then done on the loop's thread.
    virtual void post(Function work, Function done) = 0;
};

// Runs everything at once, before post returns: for programs without a loop. What is posted by a
// running function runs after it.
class CInlineExecutor : public CExecutor
{
public:
    void post(Function work, Function done) override;

private:
    std::deque<Function> m_queue;
    bool m_bRunning = false;
};

// Runs work on a thread of its own.
class CThreadExecutor : public CExecutor
{
public:
    // Ends the thread after the work that it has begun or waits for; nothing is given to the loop any more.
    ~CThreadExecutor() override;

    // False, with the message in strError, when the system refuses. The thread takes no signals.
    bool start(const char* pThreadName, std::string& strError);

    void post(Function work, Function done) override;

    // Readable while functions wait to be run on the loop's thread by runDone.
    int fd() const;
    void runDone();

    // Waits until everything that was posted is worked off, and runs what is to be done for it.
    void finish();

private:
    struct CJob
    {
        Function m_work;
        Function m_done;
    };

    void run();
    bool take(CJob& job); // waits; false at the end

    CFd m_fdDone;
    std::thread m_thread;
    CMutex m_mutex;
    std::condition_variable_any m_wake; // there is work, or the end
    std::condition_variable_any m_idle; // all work is done
    std::deque<CJob> m_queue GUARDED_BY(m_mutex);
    std::vector<Function> m_vDone GUARDED_BY(m_mutex);
    bool m_bWorking GUARDED_BY(m_mutex) = false;
    bool m_bStop GUARDED_BY(m_mutex) = false;
};

#endif
