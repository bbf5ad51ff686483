// Lets the kernel drop what comes from addresses that are not allowed.
#ifndef SIP_SOURCE_FILTER_H
#define SIP_SOURCE_FILTER_H

#include <string>

class CAddressList;

// Of all sockets of this process that listen at the address and port: datagrams and connections from elsewhere are
// as if they had never come. False, with the reason in strError, when the kernel takes no such filter.
bool filterSources(const std::string& strAddress, unsigned short usPort, bool bDatagrams, const CAddressList& addresses,
                   std::string& strError);

#endif
