// A thread that does one piece of work after the other, and is left behind when one does not end.
#ifndef DRIVER_WORKER_H
#define DRIVER_WORKER_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>

class CWorker
{
public:
    using Function = std::function<void()>;

    // How long the end waits for a single piece of work.
    static constexpr std::chrono::seconds PATIENCE{5};

    explicit CWorker(std::chrono::milliseconds patience = PATIENCE);

    // Waits for what was posted. A thread whose work takes longer than the patience goes on without its owner.
    ~CWorker();
    CWorker(const CWorker&) = delete;
    CWorker& operator=(const CWorker&) = delete;

    // False, with the message in strError, when the system refuses. The thread takes no signals.
    bool start(const std::string& strName, std::string& strError);

    // From any thread. What the work holds is let go of on the worker's thread.
    void post(Function work);

    // What was posted and is not done yet.
    size_t waiting() const;

    // Waits until nothing waits. False when a piece of work takes longer than the patience from now on; that is
    // not waited for again.
    bool finish();

private:
    struct CState;

    const std::chrono::milliseconds m_patience;
    const std::shared_ptr<CState> m_pState;
    bool m_bGivenUp = false;
};

#endif
