// Work that may block, done beside the loop.
#ifndef DRIVER_EXECUTOR_H
#define DRIVER_EXECUTOR_H

#include "Fd.h"
#include "MountTable.h"
#include "Mutex.h"
#include "PathWalk.h"
#include "Worker.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct CLane;

// Does its work in the order in which it was posted. Used on the loop's thread.
class CExecutor
{
public:
    using Function = std::function<void()>;

    virtual ~CExecutor() = default;

    // Runs work somewhere where it may block, then done on the loop's thread.
    virtual void post(Function work, Function done) = 0;

    // Where the files below a path are worked on.
    virtual CLane laneOf(const std::string& strPath);

    // Runs action, and then done, on the loop's thread, once all the work is done that action has posted.
    virtual void afterwards(const Function& action, Function done);
};

struct CLane
{
    // Work that is posted there is done in order, and waits for no other file system. It lives as long as the
    // executor that the lane is of.
    CExecutor* m_pExecutor;

    ELinks m_eLinks;                  // those that may lead to a file that is written
    bool m_bFull;                     // so much waits there that nothing should be begun
    CPathWalk::HereFunction m_isHere; // whether a path is in this lane, from any thread
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

// Runs work on threads of its own: one for each file system, and one for what belongs to none.
class CThreadExecutor : public CExecutor
{
public:
    // File systems beyond this number share threads with others.
    static constexpr size_t MAX_LANES = 16;

    // A lane in which so much waits is full.
    static constexpr size_t MAX_WAITING = 65536;

    struct CSetting
    {
        ELinks m_eLinks = ELinks::All;
        std::string m_strMounts = "/proc/self/mountinfo";
        std::chrono::milliseconds m_patience = CWorker::PATIENCE; // of the end, with a single piece of work
    };

    CThreadExecutor();
    explicit CThreadExecutor(const CSetting& setting);

    // Waits for the work that was posted, as long as it goes on; nothing is given to the loop any more.
    ~CThreadExecutor() override;

    // False, with the message in strError, when the system refuses. The threads take no signals.
    bool start(const char* pThreadName, std::string& strError);

    void post(Function work, Function done) override;
    CLane laneOf(const std::string& strPath) override;
    void afterwards(const Function& action, Function done) override;

    // Readable while functions wait to be run on the loop's thread by runDone.
    int fd() const;
    void runDone();

    // Waits until everything that was posted is worked off, and runs what is to be done for it. False when work
    // that does not end was given up.
    bool finish();

private:
    struct CGroup;
    struct CJob;
    class CDone;
    class CLaneThread;

    void postTo(CWorker& worker, Function work, Function done);
    CLaneThread& laneOfFileSystem(const std::string& strFileSystem);
    CLaneThread* addLane(const std::string& strFileSystem, std::string& strError);

    const CSetting m_setting;
    CMounts m_mounts;
    std::string m_strThreadName;
    std::shared_ptr<CDone> m_pDone;
    std::vector<std::unique_ptr<CLaneThread>> m_vLanes; // the first one is for what belongs to no file system
    std::shared_ptr<CGroup> m_pGroup;                   // of the jobs that are posted now, or null
    uint64_t m_ullPosted = 0;
};

#endif
