// A file descriptor with an owner.
#ifndef DRIVER_FD_H
#define DRIVER_FD_H

#include <unistd.h>

#include <utility>

class CFd
{
public:
    CFd() = default;
    explicit CFd(int nFd) : m_nFd(nFd) {}
    CFd(CFd&& other) noexcept : m_nFd(std::exchange(other.m_nFd, -1)) {}
    CFd& operator=(CFd&& other) noexcept
    {
        if (this != &other)
        {
            close();
            m_nFd = std::exchange(other.m_nFd, -1);
        }
        return *this;
    }
    CFd(const CFd&) = delete;
    CFd& operator=(const CFd&) = delete;
    ~CFd() { close(); }

    int get() const { return m_nFd; }
    bool isOpen() const { return m_nFd >= 0; }
    void close()
    {
        if (m_nFd >= 0)
            ::close(std::exchange(m_nFd, -1));
    }

private:
    int m_nFd = -1;
};

#endif
