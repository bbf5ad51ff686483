// The SIP stack's headers, with our classes as its contexts.
#ifndef SIP_NTA_TYPES_H
#define SIP_NTA_TYPES_H

class CNtaStack;
class CNtaDialog;
struct CNtaIncoming;
struct CNtaOutgoing;

#define NTA_AGENT_MAGIC_T CNtaStack
#define NTA_LEG_MAGIC_T CNtaDialog
#define NTA_INCOMING_MAGIC_T CNtaIncoming
#define NTA_OUTGOING_MAGIC_T CNtaOutgoing
#define NTA_RELIABLE_MAGIC_T CNtaIncoming

#include <sofia-sip/auth_client.h>
#include <sofia-sip/msg_addr.h>
#include <sofia-sip/nta.h>
#include <sofia-sip/nta_tport.h>
#include <sofia-sip/sip.h>
#include <sofia-sip/sip_extra.h>
#include <sofia-sip/sip_header.h>
#include <sofia-sip/sip_status.h>
#include <sofia-sip/sip_tag.h>
#include <sofia-sip/sip_util.h>
#include <sofia-sip/su_log.h>
#include <sofia-sip/tport.h>
#include <sofia-sip/tport_tag.h>
#include <sofia-sip/url.h>

#include <string>

extern "C"
{
    extern su_log_t nta_log[];
    extern su_log_t tport_log[];
}

// The stack's type for either an URL or the text of one.
inline url_string_t* urlText(const std::string& strUri)
{
    return strUri.empty() ? nullptr : static_cast<url_string_t*>(static_cast<void*>(const_cast<char*>(strUri.c_str())));
}

#endif
