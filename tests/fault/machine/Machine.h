// What the tests of a difficult machine share: sizes, descriptors that run out, other users.
#ifndef MACHINE_H
#define MACHINE_H

#include "../../system/SystemFixture.h"
#include "RandomRun.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

inline ino_t inodeOf(const std::string& strPath)
{
    return statusOf(strPath).st_ino;
}

// While this lives the process gets no more descriptors than these.
class CDescriptorLimit
{
public:
    explicit CDescriptorLimit(int nLeft)
    {
        getrlimit(RLIMIT_NOFILE, &m_before);
        const int nFree = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        close(nFree);
        const rlimit limit = {static_cast<rlim_t>(nFree + nLeft), m_before.rlim_max};
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    }
    ~CDescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_before); }
    CDescriptorLimit(const CDescriptorLimit&) = delete;
    CDescriptorLimit& operator=(const CDescriptorLimit&) = delete;

private:
    rlimit m_before;
};

// How many completions a stream has had. Those of an earlier stream at its address count, too.
inline size_t completionsOf(const CCompletions& completions, const CZelMediaStream* pStream)
{
    const std::vector<CCompletion> vAll = completions.all();
    return static_cast<size_t>(std::count_if(
        vAll.begin(), vAll.end(), [pStream](const CCompletion& completion) { return completion.pStream == pStream; }));
}

// Holds up the thread that comes along until it is opened.
class CBarrier
{
public:
    void wait()
    {
        std::unique_lock hold(m_mutex);
        m_bReached = true;
        m_changed.notify_all();
        m_changed.wait(hold, [this] { return m_bOpen; });
    }
    bool waitReached()
    {
        std::unique_lock hold(m_mutex);
        return m_changed.wait_for(hold, std::chrono::seconds(60), [this] { return m_bReached; });
    }
    void open()
    {
        const std::lock_guard hold(m_mutex);
        m_bOpen = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_bReached = false;
    bool m_bOpen = false;
};

// Gives a file to nobody. False where this user may not, or there are no other users.
inline bool giveToOtherUser(const std::string& strPath)
{
    const uid_t OTHER_USER = 65534;
    return lchown(strPath.c_str(), OTHER_USER, OTHER_USER) == 0;
}

#endif
