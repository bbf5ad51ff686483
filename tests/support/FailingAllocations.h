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
