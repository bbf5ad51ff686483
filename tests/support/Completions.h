// A completion handler for tests: keeps every completion, and lets a test wait for them.
#ifndef COMPLETIONS_H
#define COMPLETIONS_H

#include "ZelMediaServices.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <ostream>
#include <vector>

struct CCompletion
{
    CZelMediaStream* pStream;
    MCSTATUS mcstatus;
    CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON reason;

    bool operator==(const CCompletion& other) const
    {
        return pStream == other.pStream && mcstatus == other.mcstatus && reason == other.reason;
    }
};

inline std::ostream& operator<<(std::ostream& os, const CCompletion& completion)
{
    return os << "{stream " << completion.pStream << ", status " << completion.mcstatus << ", reason "
              << completion.reason << "}";
}

class CCompletions : public CZelMediaStreamCompletionHandler
{
public:
    // Called on the event thread for each completion before it is counted; set it before the first.
    std::function<void(const CCompletion&)> m_onCompletion;

    // A completion may just be leaving on the event thread.
    ~CCompletions() override { std::lock_guard hold(m_mutex); }

    void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) override
    {
        const CCompletion completion = {pStream, mcstatus, reason};
        if (m_onCompletion)
            m_onCompletion(completion);
        std::lock_guard hold(m_mutex);
        m_vCompletions.push_back(completion);
        m_changed.notify_all();
    }

    std::vector<CCompletion> all() const
    {
        std::lock_guard hold(m_mutex);
        return m_vCompletions;
    }

    size_t count() const { return all().size(); }

    bool waitCount(size_t nCount, std::chrono::milliseconds limit = std::chrono::seconds(30)) const
    {
        std::unique_lock hold(m_mutex);
        return m_changed.wait_for(hold, limit, [&] { return m_vCompletions.size() >= nCount; });
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<CCompletion> m_vCompletions;
};

#endif
