// Several worlds at a time, each a process with a /tmp of its own: they wait for clocks most of the time.
#ifndef WORLDS_H
#define WORLDS_H

#include <functional>
#include <gtest/gtest.h>
#include <new>
#include <sys/mman.h>
#include <type_traits>

// Does this for each world, 0 to nWorlds - 1: in processes that run at the same time, or here if there is
// but one. A failure in any of them fails the test.
void inWorlds(size_t nWorlds, const std::function<void(size_t nWorld)>& live);

// One item for each world, by which they tell this process what came of it.
template <class T> class CShared
{
public:
    explicit CShared(size_t nWorlds) : m_nBytes(nWorlds * sizeof(T))
    {
        static_assert(std::is_trivially_copyable_v<T>, "it is all that is shared");
        void* const p = mmap(nullptr, m_nBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED)
            throw std::bad_alloc();
        m_pItems = new (p) T[nWorlds];
    }
    ~CShared() { munmap(m_pItems, m_nBytes); }
    CShared(const CShared&) = delete;
    CShared& operator=(const CShared&) = delete;

    T& operator[](size_t nWorld) { return m_pItems[nWorld]; }

private:
    const size_t m_nBytes;
    T* m_pItems = nullptr;
};

#endif
