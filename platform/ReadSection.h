// CReadSection: lets many threads use an object through a shared pointer while one replaces it.
//
// A reader costs two plain stores; the thread that replaces the object pays for both sides.
//
//   reader:    CReadSection section;          replacer:  T* pOld = exchange(pointer, pNew);
//              T* p = load(pointer);                     CReadSection::waitForReaders();
//              if (p) p->use();                          delete pOld;
#ifndef READ_SECTION_H
#define READ_SECTION_H

#include <atomic>

class CReadSection
{
public:
    // What other threads see of one thread's sections. Records are never freed; the next thread takes
    // over the record of one that ended.
    struct CThread
    {
        explicit CThread(bool bBarrier) : m_bBarrier(bBarrier) {}
        unsigned int counter() const { return m_uCounter.load(std::memory_order_relaxed); }

        alignas(64) std::atomic<unsigned int> m_uCounter{0}; // odd while the thread is inside a section
        unsigned int m_uDepth = 0;                           // of the owning thread only
        const bool m_bBarrier;                               // waitForReaders has barriers for both sides
        std::atomic<bool> m_bOwned{true};
        CThread* m_pNext = nullptr;

        // Of the calling thread, null before its first section and after its end. Trivially
        // destructible, so that sections of later destructors of the thread still find it. The model
        // spares a call for each access.
        static constinit thread_local CThread* t_pThread __attribute__((tls_model("initial-exec")));
    };

    // Enters a section on the calling thread; sections nest, and end on the thread that began them.
    // Not for signal handlers. Leaves errno as it was.
    CReadSection() noexcept : m_pThread(CThread::t_pThread)
    {
        if (!m_pThread || !m_pThread->m_bBarrier)
            enterSlowly();
        else if (m_pThread->m_uDepth++ == 0)
        {
            // Releases what the previous section did, for a thread that waits for that one and finds
            // this one.
            m_pThread->m_uCounter.store(m_pThread->counter() + 1, std::memory_order_release);
            std::atomic_signal_fence(std::memory_order_seq_cst);
        }
    }
    ~CReadSection()
    {
        if (!m_pThread)
            leaveSlowly();
        else if (--m_pThread->m_uDepth == 0)
            m_pThread->m_uCounter.store(m_pThread->counter() + 1, std::memory_order_release);
    }
    CReadSection(const CReadSection&) = delete;
    CReadSection& operator=(const CReadSection&) = delete;

    // Returns when every section of other threads that was open at the call has been left. The
    // calling thread's own sections are not waited for. Two threads that both call this inside a
    // section wait for each other for ever. Leaves errno as it was.
    static void waitForReaders() noexcept;

private:
    void enterSlowly() noexcept;
    static void leaveSlowly() noexcept;

    CThread* m_pThread;
};

#endif
