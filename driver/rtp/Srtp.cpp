// SRTP and SRTCP (RFC 3711) with keys that the signalling agreed (RFC 4568).
#include "Srtp.h"

#include <srtp2/srtp.h>

#include <algorithm>
#include <array>
#include <new>

// Of RTCP, whose index stands before the tag.
static_assert(SRTP_GROWTH >= SRTP_MAX_TRAILER_LEN + sizeof(uint32_t));

namespace
{
constexpr unsigned long REPLAY_WINDOW = 1024; // packets that may come late

struct CSuite
{
    std::string_view m_name;
    size_t m_nKeyLength;
    void (*m_pSetRtp)(srtp_crypto_policy_t*);
    void (*m_pSetRtcp)(srtp_crypto_policy_t*); // its tags are never short
};

constexpr std::array SUITES = {
    CSuite{"AES_CM_128_HMAC_SHA1_80", 30, srtp_crypto_policy_set_rtp_default, srtp_crypto_policy_set_rtp_default},
    CSuite{"AES_CM_128_HMAC_SHA1_32", 30, srtp_crypto_policy_set_aes_cm_128_hmac_sha1_32,
           srtp_crypto_policy_set_rtp_default},
    CSuite{"AES_256_CM_HMAC_SHA1_80", 46, srtp_crypto_policy_set_aes_cm_256_hmac_sha1_80,
           srtp_crypto_policy_set_aes_cm_256_hmac_sha1_80},
    CSuite{"AES_256_CM_HMAC_SHA1_32", 46, srtp_crypto_policy_set_aes_cm_256_hmac_sha1_32,
           srtp_crypto_policy_set_aes_cm_256_hmac_sha1_80},
};

const CSuite* findSuite(std::string_view name)
{
    const auto it =
        std::find_if(SUITES.begin(), SUITES.end(), [name](const CSuite& suite) { return suite.m_name == name; });
    return it == SUITES.end() ? nullptr : &*it;
}

bool isLibraryReady()
{
    static const bool bReady = srtp_init() == srtp_err_status_ok;
    return bReady;
}
} // namespace

// The sources of one direction.
struct CSrtp::CContext
{
    CContext(const CSuite& suite, std::vector<uint8_t> vKey, srtp_ssrc_type_t eSources)
    {
        srtp_policy_t policy{};
        policy.ssrc.type = eSources;
        suite.m_pSetRtp(&policy.rtp);
        suite.m_pSetRtcp(&policy.rtcp);
        policy.key = vKey.data();
        policy.window_size = REPLAY_WINDOW;
        if (srtp_create(&m_session, &policy) != srtp_err_status_ok)
            throw std::bad_alloc();
    }
    ~CContext() { srtp_dealloc(m_session); }
    CContext(const CContext&) = delete;
    CContext& operator=(const CContext&) = delete;

    srtp_t m_session = nullptr;
};

namespace
{
using CTransform = srtp_err_status_t (*)(srtp_t, void*, int*);

size_t transformed(srtp_t session, CTransform pTransform, std::span<uint8_t> packet)
{
    int nSize = static_cast<int>(packet.size());
    return pTransform(session, packet.data(), &nSize) == srtp_err_status_ok ? static_cast<size_t>(nSize) : 0;
}
} // namespace

size_t srtpKeyLength(std::string_view suite)
{
    const CSuite* pSuite = findSuite(suite);
    return pSuite != nullptr ? pSuite->m_nKeyLength : 0;
}

std::unique_ptr<CSrtp> CSrtp::create(const CSrtpKeys& keys, std::string& strError)
{
    const CSuite* pSuite = findSuite(keys.m_strSuite);
    if (pSuite == nullptr)
        strError = "unknown SRTP suite \"" + keys.m_strSuite + "\"";
    else if (keys.m_vSend.size() != pSuite->m_nKeyLength || keys.m_vReceive.size() != pSuite->m_nKeyLength)
        strError =
            "SRTP key and salt of " + keys.m_strSuite + " have " + std::to_string(pSuite->m_nKeyLength) + " bytes";
    else if (!isLibraryReady())
        strError = "the SRTP library does not start";
    else
        return std::unique_ptr<CSrtp>(
            new CSrtp(keys, std::make_unique<CContext>(*pSuite, keys.m_vSend, ssrc_any_outbound),
                      std::make_unique<CContext>(*pSuite, keys.m_vReceive, ssrc_any_inbound)));
    return nullptr;
}

CSrtp::CSrtp(const CSrtpKeys& keys, std::unique_ptr<CContext> pSend, std::unique_ptr<CContext> pReceive)
    : m_keys(keys), m_pSend(std::move(pSend)), m_pReceive(std::move(pReceive))
{
}

CSrtp::~CSrtp() = default;

size_t CSrtp::protect(std::span<uint8_t> buffer, size_t nSize)
{
    return transformed(m_pSend->m_session, srtp_protect, buffer.first(nSize));
}

size_t CSrtp::protectRtcp(std::span<uint8_t> buffer, size_t nSize)
{
    return transformed(m_pSend->m_session, srtp_protect_rtcp, buffer.first(nSize));
}

size_t CSrtp::unprotect(std::span<uint8_t> packet)
{
    return transformed(m_pReceive->m_session, srtp_unprotect, packet);
}

size_t CSrtp::unprotectRtcp(std::span<uint8_t> packet)
{
    return transformed(m_pReceive->m_session, srtp_unprotect_rtcp, packet);
}
