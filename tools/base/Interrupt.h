// CInterrupt: Ctrl-C and SIGTERM as something to wait for, together with a wake-up from another thread.
#ifndef INTERRUPT_H
#define INTERRUPT_H

#include <chrono>

// To be made before there are other threads: they must not take the signals.
class CInterrupt
{
public:
    CInterrupt();
    ~CInterrupt(); // from then on the signals act as before
    CInterrupt(const CInterrupt&) = delete;
    CInterrupt& operator=(const CInterrupt&) = delete;

    // Any thread: ends the wait that goes on, or the next one.
    void wake();

    // Waits for a signal or a wake-up. True when there was a signal; each is told once.
    bool wait(std::chrono::milliseconds limit);

private:
    int m_nSignals;
    int m_nWake;
};

#endif
