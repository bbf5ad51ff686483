// Lets the n-th allocation of a thread fail, or all from the n-th on: for test programs that link
// FailingAllocations.cpp, which replaces the global operator new.
#ifndef FAILING_ALLOCATIONS_H
#define FAILING_ALLOCATIONS_H

#include <gtest/gtest.h>
#include <ostream>

enum class Failing
{
    Once,
    FromThenOn
};

inline std::ostream& operator<<(std::ostream& os, Failing failing)
{
    return os << (failing == Failing::Once ? "Once" : "FromThenOn");
}

// While this lives the calling thread's nth allocation (from 1) fails. Other threads are spared.
class CAllocationFailure
{
public:
    CAllocationFailure(int nth, Failing failing);
    ~CAllocationFailure();
    CAllocationFailure(const CAllocationFailure&) = delete;
    CAllocationFailure& operator=(const CAllocationFailure&) = delete;
    static bool happened(); // on this thread, since the last one was made
};

// Spares what the calling thread allocates meanwhile: work of the test inside the library.
class CAllocationsSpared
{
public:
    CAllocationsSpared();
    ~CAllocationsSpared();
    CAllocationsSpared(const CAllocationsSpared&) = delete;
    CAllocationsSpared& operator=(const CAllocationsSpared&) = delete;
};

// The same for the library as a whole: the allocations of all threads that are inside it, those that its calls
// of the system make included where no sanitizer replaces malloc. Armed by one thread.
class CLibraryAllocations
{
public:
    // From now on the nth (from 1) fails; with 0 they are only counted.
    static void arm(int nth, Failing failing);
    static void disarm();
    static bool isArmed();
    static int counted();   // since the last arm
    static bool happened(); // since the last arm
    static long blocks();   // of the whole process, that operator new gave and nobody deleted
};

// The calling thread is inside the library meanwhile. The library's own thread always is.
class CInsideLibrary
{
public:
    CInsideLibrary() { ++t_nDepth; }
    ~CInsideLibrary() { --t_nDepth; }
    CInsideLibrary(const CInsideLibrary&) = delete;
    CInsideLibrary& operator=(const CInsideLibrary&) = delete;
    static bool isInside() { return t_nDepth > 0; }

private:
    static inline thread_local int t_nDepth = 0;
};

// Counts attempts, each with the next allocation failing, until one needs no more:
//
//   for (CAttempts attempts(Failing::Once); attempts.next();)
//   {
//       ... prepare ...
//       const int nStatus = attempts.run([&] { return operation(); });
//       if (attempts.failed()) ...
//   }
class CAttempts
{
public:
    explicit CAttempts(Failing failing) : m_failing(failing) {}

    bool next()
    {
        if (m_nth > 0 && !m_bFailed)
            return false;
        ++m_nth;
        EXPECT_GT(500, m_nth) << "it never works";
        return m_nth < 500;
    }

    // No exception may come out of the operation.
    template <class OPERATION> int run(OPERATION operation)
    {
        int nStatus = -1;
        bool bThrown = false;
        {
            CAllocationFailure failure(m_nth, m_failing);
            try
            {
                nStatus = operation();
            }
            catch (...)
            {
                bThrown = true;
            }
        }
        m_bFailed = CAllocationFailure::happened();
        EXPECT_FALSE(bThrown) << "an exception left the library at allocation " << m_nth;
        return nStatus;
    }

    bool failed() const { return m_bFailed; }
    int nth() const { return m_nth; }

private:
    const Failing m_failing;
    int m_nth = 0;
    bool m_bFailed = false;
};

#endif
