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
            Close();
            m_nFd = std::exchange(other.m_nFd, -1);
        }
        return *this;
    }
    CFd(const CFd&) = delete;
    CFd& operator=(const CFd&) = delete;
    ~CFd() { Close(); }

    int Get() const { return m_nFd; }
    bool IsOpen() const { return m_nFd >= 0; }
    void Close()
    {
        if (m_nFd >= 0)
        {
            ::close(std::exchange(m_nFd, -1));
        }
    }

private:
    int m_nFd = -1;
};

#endif
