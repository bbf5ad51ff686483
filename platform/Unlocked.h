// Reads and writes of plain integers and pointers that two threads share without a lock.
#ifndef UNLOCKED_H
#define UNLOCKED_H

#include <atomic>
#include <type_traits>

template <class T> T loadUnlocked(const T& value)
{
    return std::atomic_ref<T>(const_cast<T&>(value)).load(std::memory_order_acquire);
}

template <class T> void storeUnlocked(T& value, std::type_identity_t<T> newValue)
{
    std::atomic_ref<T>(value).store(newValue, std::memory_order_release);
}

template <class T> T exchangeUnlocked(T& value, std::type_identity_t<T> newValue)
{
    return std::atomic_ref<T>(value).exchange(newValue);
}

#endif
