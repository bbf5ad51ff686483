// Digest credentials for what a 401 or 407 asks for.
#ifndef SIP_NTA_DIGEST_H
#define SIP_NTA_DIGEST_H

#include "NtaTypes.h"
#include "SipDialog.h"

#include <string>

// The header lines for the request again; empty when no challenge is one that we can answer.
std::string digestLines(const sip_t* pResponse, const CSipCredentials& credentials, const std::string& strMethod,
                        const std::string& strUri, const std::string& strBody);

#endif
