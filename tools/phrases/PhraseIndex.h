// CPhraseIndex: which phrases a phrase file holds, and where; kept as JSON beside it.
#ifndef PHRASE_INDEX_H
#define PHRASE_INDEX_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct CPhrase
{
    std::string m_strName;
    uint32_t m_nOffset = 0; // samples, 8000 a second
    uint32_t m_nLength = 0;
};

struct CPhraseIndex
{
    std::string m_strFile;           // the phrase file; when read, absolute or from the working directory
    std::vector<CPhrase> m_vPhrases; // in the order of the offsets
    const CPhrase* find(const std::string& strName) const;
};

// Nothing is wrong with it: {}. Otherwise why a phrase cannot have this name.
std::string problemOfName(const std::string& strName);

// Reads an index as far as it makes sense, and says in vProblems what does not. Throws CToolError when
// there is no such file.
CPhraseIndex readPhraseIndex(const std::string& strPath, std::vector<std::string>& vProblems);

// The same for who wants to use it: throws CToolError for the first problem, too.
CPhraseIndex readPhraseIndex(const std::string& strPath);

// What an index says, as a file; strFile is taken as it is.
std::string phraseIndexText(const CPhraseIndex& index);

#endif
