// CBytePipe: what lies in a pipe, as the one who knows all that was written into it sees it.
#ifndef BYTE_PIPE_H
#define BYTE_PIPE_H

#include <cstdint>
#include <cstring>
#include <vector>

class CBytePipe
{
public:
    size_t size() const { return m_vBytes.size() - m_nTaken; }
    bool empty() const { return size() == 0; }
    void clear() { take(size()); }

    void append(const std::vector<uint8_t>& vBytes) { m_vBytes.insert(m_vBytes.end(), vBytes.begin(), vBytes.end()); }
    template <class RECORD> void append(const RECORD& record)
    {
        const uint8_t* const pBytes = reinterpret_cast<const uint8_t*>(&record);
        m_vBytes.insert(m_vBytes.end(), pBytes, pBytes + sizeof(record));
    }

    // Puts into the record what one read gives, and returns the size of that: what was in the record
    // behind it stays.
    template <class RECORD> size_t read(RECORD& record)
    {
        const size_t nBytes = size() < sizeof(record) ? size() : sizeof(record);
        if (nBytes > 0)
            memcpy(static_cast<void*>(&record), m_vBytes.data() + m_nTaken, nBytes);
        take(nBytes);
        return nBytes;
    }

private:
    void take(size_t nBytes)
    {
        m_nTaken += nBytes;
        if (m_nTaken == m_vBytes.size())
        {
            m_vBytes.clear();
            m_nTaken = 0;
        }
    }

    std::vector<uint8_t> m_vBytes;
    size_t m_nTaken = 0;
};

#endif
