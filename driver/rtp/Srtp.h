// SRTP and SRTCP (RFC 3711) with keys that the signalling agreed (RFC 4568).
#ifndef DRIVER_SRTP_H
#define DRIVER_SRTP_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct CSrtpKeys
{
    std::string m_strSuite;       // "AES_CM_128_HMAC_SHA1_80"
    std::vector<uint8_t> m_vSend; // key and salt, of the length that the suite asks for
    std::vector<uint8_t> m_vReceive;

    bool operator==(const CSrtpKeys&) const = default;
};

// By how much a packet grows at most, and what a buffer for it has to be aligned to.
constexpr size_t SRTP_GROWTH = 148;
constexpr size_t SRTP_ALIGNMENT = 4;

// How many bytes of key and salt a suite takes; 0 for one that is not known.
size_t srtpKeyLength(std::string_view suite);

// Both directions of one session; it lasts as long as its keys do, as what was counted under a key must not be
// counted again. All work in place, and neither block nor lock. A source that is new is remembered, for which
// there must be memory.
class CSrtp
{
public:
    // Null, with the reason in strError, for keys that are none.
    static std::unique_ptr<CSrtp> create(const CSrtpKeys& keys, std::string& strError);
    ~CSrtp();
    CSrtp(const CSrtp&) = delete;
    CSrtp& operator=(const CSrtp&) = delete;

    const CSrtpKeys& keys() const { return m_keys; }

    // The packet is the first nSize bytes of the buffer, which has SRTP_GROWTH bytes more. Returns the size of
    // what is to be sent, 0 when nothing can be.
    size_t protect(std::span<uint8_t> buffer, size_t nSize);
    size_t protectRtcp(std::span<uint8_t> buffer, size_t nSize);

    // Returns the size of the packet that was in it; 0 when it was not made with the key, was changed on its
    // way, or has been here before. Nothing has changed then.
    size_t unprotect(std::span<uint8_t> packet);
    size_t unprotectRtcp(std::span<uint8_t> packet);

private:
    struct CContext;

    CSrtp(const CSrtpKeys& keys, std::unique_ptr<CContext> pSend, std::unique_ptr<CContext> pReceive);

    const CSrtpKeys m_keys;
    const std::unique_ptr<CContext> m_pSend;
    const std::unique_ptr<CContext> m_pReceive;
};

#endif
