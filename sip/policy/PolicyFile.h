// Reads the policy file.
#ifndef SIP_POLICY_FILE_H
#define SIP_POLICY_FILE_H

#include "Policy.h"

#include <string>
#include <vector>

// Takes the file into the policy, over what is there. False, with the first mistake in strError by line and key.
bool readPolicyFile(const std::string& strFile, CPolicy& policy, std::string& strError);

// The same of a text; strFile is for the messages only.
bool readPolicyText(const std::string& strText, const std::string& strFile, CPolicy& policy, std::string& strError);

#endif
