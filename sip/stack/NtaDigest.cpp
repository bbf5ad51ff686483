// Digest credentials for what a 401 or 407 asks for.
#include "NtaDigest.h"

#include <sofia-sip/su_alloc.h>

#include <memory>
#include <strings.h>

namespace
{
using Home = std::unique_ptr<su_home_t, void (*)(su_home_t*)>;

// The stack fails for all when one of several challenges has another algorithm.
bool isMd5(const msg_auth_t* pChallenge)
{
    if (!pChallenge->au_scheme || strcasecmp(pChallenge->au_scheme, "Digest") != 0)
        return false;
    const char* pAlgorithm = msg_params_find(pChallenge->au_params, "algorithm=");
    return !pAlgorithm || strcasecmp(pAlgorithm, "MD5") == 0 || strcasecmp(pAlgorithm, "\"MD5\"") == 0;
}

std::string linesFor(su_home_t* pHome, const msg_auth_t* pChallenges, msg_hclass_t* pClass,
                     const CSipCredentials& credentials, const std::string& strMethod, const std::string& strUri,
                     const std::string& strBody)
{
    std::string strLines;
    for (const msg_auth_t* pChallenge = pChallenges; pChallenge; pChallenge = pChallenge->au_next)
    {
        if (!isMd5(pChallenge))
            continue;
        msg_auth_t single = *pChallenge;
        single.au_next = nullptr;
        auth_client_t* pClient = nullptr; // a fresh one for each nonce
        msg_payload_t body = {};
        body.pl_data = const_cast<char*>(strBody.data());
        body.pl_len = static_cast<usize_t>(strBody.size());
        msg_header_t* pHeaders = nullptr;
        if (auc_challenge(&pClient, pHome, &single, pClass) > 0 &&
            auc_all_credentials(&pClient, nullptr, nullptr, credentials.m_strUser.c_str(),
                                credentials.m_strPassword.c_str()) > 0 &&
            auc_authorization_headers(&pClient, pHome, strMethod.c_str(), url_make(pHome, strUri.c_str()), &body,
                                      &pHeaders) > 0)
        {
            // The stack's own printer cuts off what is longer than 128 bytes.
            const auto* pCredentials = reinterpret_cast<const msg_auth_t*>(pHeaders);
            strLines += std::string(pHeaders->sh_class->hc_name) + ": " + pCredentials->au_scheme;
            const char* pSeparator = " ";
            for (const msg_param_t* pParameter = pCredentials->au_params; pParameter && *pParameter; ++pParameter)
            {
                strLines += std::string(pSeparator) + *pParameter;
                pSeparator = ", ";
            }
            strLines += "\r\n";
            return strLines; // the first that we know is the one that the server likes best
        }
    }
    return strLines;
}
} // namespace

std::string digestLines(const sip_t* pResponse, const CSipCredentials& credentials, const std::string& strMethod,
                        const std::string& strUri, const std::string& strBody)
{
    const Home home(su_home_create(), [](su_home_t* pHome) { su_home_unref(pHome); });
    return linesFor(home.get(), pResponse->sip_www_authenticate, sip_authorization_class, credentials, strMethod,
                    strUri, strBody) +
           linesFor(home.get(), pResponse->sip_proxy_authenticate, sip_proxy_authorization_class, credentials,
                    strMethod, strUri, strBody);
}
