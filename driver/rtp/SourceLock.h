// Where the packets of a leg come from, which need not be where signalling says (symmetric RTP).
#ifndef DRIVER_SOURCE_LOCK_H
#define DRIVER_SOURCE_LOCK_H

#include "NetAddress.h"

#include <cstdint>

// The address that was signalled is believed at its first packet, any other one at its second in a row.
// Then only that one counts; for a short while after the first packet the signalled address may still take
// it over. New signalling begins anew.
class CSourceLock
{
public:
    enum class EState
    {
        Fixed,    // the address of a table; nothing is learned
        Learning, // nothing has come yet
        Open,     // something came, and the signalled address may still come
        Locked
    };

    // Only from this address, for ever.
    void fix(const CNetAddress& remote);

    // Signalled; without an address if none is known.
    void learn(const CNetAddress& signalled);

    // Whether a valid packet from there counts. bMoved is set when the remote address is another one now.
    bool accept(const CNetAddress& from, uint64_t ullTick, bool& bMoved);

    // Where packets go: without an address while none is known.
    const CNetAddress& remote() const { return m_remote; }
    EState state() const { return m_eState; }

private:
    static constexpr uint64_t OPEN_TICKS = 150;

    EState m_eState = EState::Learning;
    CNetAddress m_signalled;
    CNetAddress m_remote;
    CNetAddress m_candidate;
    uint64_t m_ullOpenUntil = 0;
};

#endif
