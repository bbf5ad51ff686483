// CDescriptor: a file descriptor that is closed at the end of its scope.
#ifndef DESCRIPTOR_H
#define DESCRIPTOR_H

#include <unistd.h>

class CDescriptor
{
public:
    explicit CDescriptor(int nDescriptor) : m_nDescriptor(nDescriptor) {} // -1: none
    ~CDescriptor()
    {
        if (m_nDescriptor != -1)
            close(m_nDescriptor);
    }
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;
    int get() const { return m_nDescriptor; }

private:
    const int m_nDescriptor;
};

#endif
