// The dialogs of answered calls, in a file that outlives the process.
#ifndef SIP_JOURNAL_H
#define SIP_JOURNAL_H

#include "MediaDriver.h"
#include "SipDialog.h"

#include <fstream>
#include <map>
#include <string>

class CJournal
{
public:
    // Reads what a former process has left, and begins anew. False, with the reason in strError.
    bool open(const std::string& strFile, std::map<CLegName, CSipSavedDialog>& mapLeft, std::string& strError);

    void put(const CLegName& leg, const CSipSavedDialog& dialog);
    void remove(const CLegName& leg);

private:
    bool begin(std::string& strError);
    void compact();

    std::string m_strFile;
    std::ofstream m_file;
    std::map<CLegName, std::string> m_mapLines;
    size_t m_nWritten = 0;
};

#endif
