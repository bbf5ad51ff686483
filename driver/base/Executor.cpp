// Work that may block, done beside the loop.
#include "Executor.h"

#include "Text.h"

#include <spdlog/spdlog.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

CLane CExecutor::laneOf(const std::string&)
{
    return {this, ELinks::Trusted, false, [](const std::string&) { return true; }};
}

void CExecutor::afterwards(const Function& action, Function done)
{
    action();
    post([] {}, std::move(done));
}

void CInlineExecutor::post(Function work, Function done)
{
    m_queue.push_back(std::move(work));
    m_queue.push_back(std::move(done));
    if (m_bRunning)
        return;
    m_bRunning = true;
    while (!m_queue.empty())
    {
        const Function function = std::move(m_queue.front());
        m_queue.pop_front();
        function();
    }
    m_bRunning = false;
}

// Jobs whose end somebody waits for. Used on the loop's thread.
struct CThreadExecutor::CGroup
{
    explicit CGroup(Function done) : m_done(std::move(done)) {}

    void leave()
    {
        if (--m_nMembers == 0)
            m_done();
    }

    const Function m_done;
    size_t m_nMembers = 1; // the jobs, and who still posts them
};

struct CThreadExecutor::CJob
{
    Function m_work;
    Function m_done;
    std::shared_ptr<CGroup> m_pGroup;
    std::shared_ptr<CJob> m_pNext; // in the list of what is done: entering it takes no memory, so it cannot fail
};

// What was worked off and is to be given to the loop. Shared with the threads, which may outlive the executor.
class CThreadExecutor::CDone
{
public:
    CDone() : m_fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

    // One by one: each holds the next one.
    ~CDone()
    {
        while (m_pFirst)
            m_pFirst = std::exchange(m_pFirst->m_pNext, nullptr);
    }

    const CFd& fd() const { return m_fd; }

    void add(std::shared_ptr<CJob> pJob)
    {
        {
            const CMutexHold hold(m_mutex);
            CJob* pFormer = std::exchange(m_pLast, pJob.get());
            (pFormer != nullptr ? pFormer->m_pNext : m_pFirst) = std::move(pJob);
        }
        const uint64_t ullOne = 1;
        [[maybe_unused]] const ssize_t nWritten = ::write(m_fd.get(), &ullOne, sizeof(ullOne));
    }

    // All that there is, in order.
    std::shared_ptr<CJob> take()
    {
        uint64_t ullCount = 0;
        [[maybe_unused]] const ssize_t nRead = ::read(m_fd.get(), &ullCount, sizeof(ullCount));
        const CMutexHold hold(m_mutex);
        m_pLast = nullptr;
        return std::exchange(m_pFirst, nullptr);
    }

private:
    const CFd m_fd;
    CMutex m_mutex;
    std::shared_ptr<CJob> m_pFirst GUARDED_BY(m_mutex);
    CJob* m_pLast GUARDED_BY(m_mutex) = nullptr;
};

class CThreadExecutor::CLaneThread : public CExecutor
{
public:
    CLaneThread(CThreadExecutor& parent, std::string strFileSystem)
        : m_strFileSystem(std::move(strFileSystem)), m_worker(parent.m_setting.m_patience), m_parent(parent)
    {
    }

    void post(Function work, Function done) override { m_parent.postTo(m_worker, std::move(work), std::move(done)); }
    CLane laneOf(const std::string& strPath) override { return m_parent.laneOf(strPath); }
    void afterwards(const Function& action, Function done) override { m_parent.afterwards(action, std::move(done)); }

    std::string m_strFileSystem;
    CWorker m_worker;

private:
    CThreadExecutor& m_parent;
};

CThreadExecutor::CThreadExecutor() : CThreadExecutor(CSetting()) {}

CThreadExecutor::CThreadExecutor(const CSetting& setting) : m_setting(setting), m_mounts(setting.m_strMounts) {}

CThreadExecutor::~CThreadExecutor() = default;

bool CThreadExecutor::start(const char* pThreadName, std::string& strError)
{
    m_strThreadName = pThreadName;
    m_pDone = std::make_shared<CDone>();
    if (!m_pDone->fd().isOpen())
    {
        strError = "cannot set up a worker: " + errnoText(errno);
        return false;
    }
    return addLane("", strError) != nullptr;
}

CThreadExecutor::CLaneThread* CThreadExecutor::addLane(const std::string& strFileSystem, std::string& strError)
{
    auto pLane = std::make_unique<CLaneThread>(*this, strFileSystem);
    const std::string strName = strFileSystem.empty() ? m_strThreadName : m_strThreadName + " " + strFileSystem;
    if (!pLane->m_worker.start(strName, strError))
        return nullptr;
    m_vLanes.push_back(std::move(pLane));
    return m_vLanes.back().get();
}

CThreadExecutor::CLaneThread& CThreadExecutor::laneOfFileSystem(const std::string& strFileSystem)
{
    const auto it = std::find_if(m_vLanes.begin(), m_vLanes.end(), [&strFileSystem](const auto& pLane) {
        return pLane->m_strFileSystem == strFileSystem;
    });
    if (it != m_vLanes.end())
        return **it;
    std::string strError;
    if (m_vLanes.size() < MAX_LANES)
        if (CLaneThread* pLane = addLane(strFileSystem, strError))
            return *pLane;
    // File systems come and go: one in which nothing happens gives its thread away.
    const auto itIdle = std::find_if(m_vLanes.begin() + 1, m_vLanes.end(),
                                     [](const auto& pLane) { return pLane->m_worker.waiting() == 0; });
    if (itIdle == m_vLanes.end())
        return *m_vLanes.front();
    (*itIdle)->m_strFileSystem = strFileSystem;
    std::rotate(itIdle, itIdle + 1, m_vLanes.end()); // the next one takes another thread
    return *m_vLanes.back();
}

void CThreadExecutor::post(Function work, Function done)
{
    m_vLanes.front()->post(std::move(work), std::move(done));
}

void CThreadExecutor::postTo(CWorker& worker, Function work, Function done)
{
    const auto pJob = std::make_shared<CJob>(CJob{std::move(work), std::move(done), m_pGroup, nullptr});
    ++m_ullPosted;
    worker.post([pJob, pDone = m_pDone]() mutable {
        pJob->m_work();
        pJob->m_work = nullptr; // what it holds is let go of here, where it may block
        pDone->add(std::move(pJob));
    });
    if (m_pGroup)
        ++m_pGroup->m_nMembers;
}

CLane CThreadExecutor::laneOf(const std::string& strPath)
{
    const auto pTable = m_mounts.table();
    const std::string strFileSystem = pTable->fileSystemOf(plainPath(strPath));
    CLaneThread& lane = laneOfFileSystem(strFileSystem);
    return {&lane, m_setting.m_eLinks, lane.m_worker.waiting() >= MAX_WAITING,
            [pTable, strFileSystem](const std::string& strOther) {
                return pTable->fileSystemOf(plainPath(strOther)) == strFileSystem;
            }};
}

void CThreadExecutor::afterwards(const Function& action, Function done)
{
    const auto pGroup = std::make_shared<CGroup>(std::move(done));
    const auto pFormer = std::exchange(m_pGroup, pGroup);
    try
    {
        action();
    }
    catch (...)
    {
        m_pGroup = pFormer;
        throw;
    }
    m_pGroup = pFormer;
    pGroup->leave();
}

int CThreadExecutor::fd() const
{
    return m_pDone ? m_pDone->fd().get() : -1;
}

void CThreadExecutor::runDone()
{
    std::shared_ptr<CJob> pJob = m_pDone->take();
    while (pJob)
    {
        const std::shared_ptr<CJob> pNow = std::exchange(pJob, std::move(pJob->m_pNext));
        pNow->m_done();
        if (pNow->m_pGroup)
            pNow->m_pGroup->leave();
    }
}

bool CThreadExecutor::finish()
{
    bool bAll = true;
    for (bool bAgain = !m_vLanes.empty(); bAgain;)
    {
        bAll = true;
        for (const auto& pLane : m_vLanes)
            if (!pLane->m_worker.finish())
            {
                bAll = false;
                spdlog::error("{} pieces of work on the file system {} do not end, and are given up",
                              pLane->m_worker.waiting(), pLane->m_strFileSystem);
            }
        const uint64_t ullBefore = m_ullPosted;
        runDone(); // which may post again
        bAgain = m_ullPosted != ullBefore;
    }
    return bAll;
}
