// Keys of a telephone as events of RTP (RFC 4733).
#ifndef DRIVER_TELEPHONE_EVENTS_H
#define DRIVER_TELEPHONE_EVENTS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

// Gets each key once.
class CKeyListener
{
public:
    virtual ~CKeyListener() = default;

    virtual void onKeyDown(char cKey) = 0;
    virtual void onKeyUp(char cKey, unsigned nMs) = 0;
};

// Finds the keys in the packets of one source, of which any may be lost, doubled or out of order. Neither
// blocks, locks nor allocates.
class CKeyReceiver
{
public:
    explicit CKeyReceiver(CKeyListener& listener) : m_listener(listener) {}

    // False for a payload that is no event.
    bool onPacket(uint32_t nTimestamp, bool bMarker, std::span<const uint8_t> payload);

    // Once each 20 ms: the key of which nothing more is heard is up.
    void onTick();

    // Another source, or the same one anew.
    void restart();

private:
    struct CKey
    {
        uint8_t m_nEvent;
        uint32_t m_nTimestamp; // of this part of it
        uint32_t m_nBefore;    // duration of the parts before
        uint32_t m_nDuration;
        int m_nSilentTicks;
    };

    void end();

    CKeyListener& m_listener;
    std::optional<CKey> m_down;
    std::optional<uint32_t> m_nLastTimestamp; // of the last key; older ones are over
};

constexpr size_t KEY_PAYLOAD_SIZE = 4;

// Presses keys one after the other.
class CKeySender
{
public:
    static constexpr size_t MAX_KEYS = 64;

    // Puts keys behind those that wait. False when there is no room, or one of them is no key.
    bool press(std::string_view keys, unsigned nMs, unsigned nGapMs);

    bool isBusy() const { return m_nKeys > 0; }

    // A key is down, so that its packets take the place of audio.
    bool isDown() const { return isBusy() && m_ePhase != EPhase::Gap; }
    char key() const { return m_acKeys[m_nFirst]; }

    struct CPacket
    {
        bool m_bBegins; // a new key: the timestamp is that of now
        std::array<uint8_t, KEY_PAYLOAD_SIZE> m_payload;
    };

    // What is to be sent in this tick of 20 ms, if anything. bAllDone is set when the last key is done.
    std::optional<CPacket> onTick(bool& bAllDone);

private:
    enum class EPhase
    {
        Gap,
        Down,
        Up // its end is told three times
    };

    CPacket packet(bool bBegins, bool bEnd) const;

    std::array<char, MAX_KEYS> m_acKeys{};
    size_t m_nFirst = 0;
    size_t m_nKeys = 0;
    unsigned m_nMs = 0;
    unsigned m_nGapMs = 0;
    EPhase m_ePhase = EPhase::Gap;
    unsigned m_nPhaseMs = 0;
    unsigned m_nEndsLeft = 0;
};

// -1 for what is no key: 0 to 9, *, #, A to D.
int eventOfKey(char cKey);

#endif
