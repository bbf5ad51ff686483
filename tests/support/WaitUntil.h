// Waits for a condition, which is better than waiting for a time.
#ifndef WAIT_UNTIL_H
#define WAIT_UNTIL_H

#include <chrono>
#include <thread>

// Looks again and again until the condition holds; false when that takes too long.
template <class CONDITION>
bool waitUntil(CONDITION condition, std::chrono::milliseconds limit = std::chrono::seconds(60))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

#endif
