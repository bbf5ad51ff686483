// Where the packets of a leg come from, which need not be where signalling says (symmetric RTP).
#include "SourceLock.h"

void CSourceLock::fix(const CNetAddress& remote)
{
    m_eState = EState::Fixed;
    m_signalled = m_remote = remote;
}

void CSourceLock::learn(const CNetAddress& signalled)
{
    m_eState = EState::Learning;
    m_signalled = m_remote = signalled;
    m_candidate = CNetAddress();
}

bool CSourceLock::accept(const CNetAddress& from, uint64_t ullTick, bool& bMoved)
{
    bMoved = false;
    if (m_eState == EState::Open && ullTick >= m_ullOpenUntil)
        m_eState = EState::Locked;
    if (m_eState == EState::Fixed || m_eState == EState::Locked)
        return from == m_remote;
    if (from == m_signalled)
    {
        bMoved = m_remote != from;
        m_remote = from;
        m_eState = EState::Locked;
        return true;
    }
    if (m_eState == EState::Open)
        return from == m_remote;
    if (from != m_candidate)
    {
        m_candidate = from;
        return false;
    }
    bMoved = true;
    m_remote = from;
    m_eState = EState::Open;
    m_ullOpenUntil = ullTick + OPEN_TICKS;
    return true;
}
