// From the stack's messages to ours, and what of ours goes into its messages.
#ifndef SIP_NTA_MESSAGE_H
#define SIP_NTA_MESSAGE_H

#include "NtaTypes.h"
#include "SipMessage.h"

#include <string>

// sip may be null: a response that the stack made up, with the status nStatus.
CSipMessage toMessage(const sip_t* pSip, int nStatus = 0);

// Fills in where a message came from; destroys the message.
void addSource(CSipMessage& message, msg_t* pMessage);

// The lines of headers for SIPTAG_HEADER_STR. What is no header is left out: no value can bring a second line.
std::string headerLines(const SipHeaders& vHeaders);

std::string toText(const url_t* pUrl);

#endif
