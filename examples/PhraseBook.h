// CPhraseBook: the phrases of a phrase file by their names, for the examples.
#ifndef PHRASE_BOOK_H
#define PHRASE_BOOK_H

#include "ZelMediaServices.h"

#include <chrono>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

// Throws what went wrong, unless the status is MCS_OK.
inline void check(const std::string& strWhat, int nStatus)
{
    if (nStatus != MCS_OK)
        throw std::runtime_error(strWhat + ": " + MCSTATUSToString(nStatus) + " (" + std::to_string(nStatus) + ")");
}

class CPhraseBook
{
public:
    struct CPhrase
    {
        unsigned long m_ulOffset, m_ulLength; // samples
    };

    // Opens FOLDER/phrases.ul, of which FOLDER/phrases.index has a line "name offset length" for each phrase.
    CPhraseBook(CZelMediaServices& services, const std::string& strFolder)
        : m_services(services), m_phrases(readIndex(strFolder + "/phrases.index")),
          m_ulFileID(openFile(services, strFolder + "/phrases.ul"))
    {
    }
    ~CPhraseBook() { m_services.closePhraseFile(m_ulFileID); }
    CPhraseBook(const CPhraseBook&) = delete;
    CPhraseBook& operator=(const CPhraseBook&) = delete;

    unsigned long fileID() const { return m_ulFileID; }
    const CPhrase& find(const std::string& strName) const
    {
        const auto it = m_phrases.find(strName);
        if (it == m_phrases.end())
            throw std::runtime_error("no phrase " + strName);
        return it->second;
    }

    // Plays the phrase, or queues it: see CZelMediaStream::playAddPhrase.
    int play(CZelMediaStream& stream, const std::string& strName, unsigned long ulTimeout, int nFlag) const
    {
        const CPhrase& phrase = find(strName);
        return stream.playAddPhrase(m_ulFileID, phrase.m_ulOffset, phrase.m_ulLength, ulTimeout, nFlag, 0);
    }

private:
    static std::map<std::string, CPhrase> readIndex(const std::string& strFile)
    {
        std::map<std::string, CPhrase> phrases;
        std::ifstream index(strFile);
        std::string strName;
        CPhrase phrase;
        while (index >> strName >> phrase.m_ulOffset >> phrase.m_ulLength)
            phrases[strName] = phrase;
        if (phrases.empty())
            throw std::runtime_error("no phrases in " + strFile);
        return phrases;
    }

    // The driver may still be starting: until the library is connected every request ends with MCS_NOTCONNECTED.
    static unsigned long openFile(CZelMediaServices& services, std::string strFile)
    {
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        for (;;)
        {
            unsigned long ulFileID;
            const int nStatus = services.openPhraseFile(&strFile[0], &ulFileID);
            if (nStatus == MCS_OK)
                return ulFileID;
            services.closePhraseFile(ulFileID);
            if (nStatus != MCS_NOTCONNECTED || std::chrono::steady_clock::now() > giveUp)
                check("opening " + strFile, nStatus);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    CZelMediaServices& m_services;
    const std::map<std::string, CPhrase> m_phrases;
    const unsigned long m_ulFileID;
};

#endif
