// What each status means, when it arises, and what to do: what zelmedia explain tells.
#ifndef STATUS_TABLE_H
#define STATUS_TABLE_H

#include "ZelMediaServices.h"

#include <string>
#include <vector>

struct CStatusEntry
{
    MCSTATUS mcstatus;
    const char* pszName; // null for those of zelmedia-driver alone
    const char* pszMeaning;
    const char* pszWhen;
    const char* pszWhatToDo;
};

// By value.
const std::vector<CStatusEntry>& statusTable();

// Null for a value that has no entry: one of some media driver's own.
const CStatusEntry* findStatus(MCSTATUS mcstatus);

// By name, in any case, with or without MCS_.
const CStatusEntry* findStatus(const std::string& strName);

// The names that the text may have been meant for, the closest first; none for nonsense.
std::vector<std::string> closestStatusNames(const std::string& strName);

#endif
