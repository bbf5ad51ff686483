// The table of the log's texts is what the library writes.
#include "log/LogTexts.h"
#include "Places.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>

namespace
{
std::string unescaped(const std::string& strLiteral)
{
    std::string strText;
    for (size_t n = 0; n < strLiteral.size(); ++n)
        if (strLiteral[n] == '\\' && n + 1 < strLiteral.size())
            strText += strLiteral[++n] == 'n' ? '\n' : strLiteral[n];
        else
            strText += strLiteral[n];
    return strText;
}

// Takes the literal that begins here; nothing when none does.
bool takeLiteral(const std::string& strSource, size_t& nPlace, std::string& strLiteral)
{
    if (nPlace >= strSource.size() || strSource[nPlace] != '"')
        return false;
    const size_t nBegin = nPlace + 1;
    for (nPlace = nBegin; strSource[nPlace] != '"'; ++nPlace)
        nPlace += strSource[nPlace] == '\\';
    strLiteral += strSource.substr(nBegin, nPlace++ - nBegin);
    return true;
}

// The texts in the library's sources; those that follow each other are one.
std::set<std::string> textsOfLibrary()
{
    std::set<std::string> texts;
    for (const auto& entry : std::filesystem::directory_iterator(LIBRARY_SOURCES))
    {
        std::ifstream file(entry.path());
        const std::string strSource{std::istreambuf_iterator<char>(file), {}};
        for (size_t nPlace = strSource.find('"'); nPlace != std::string::npos; nPlace = strSource.find('"', nPlace))
        {
            std::string strLiteral;
            while (takeLiteral(strSource, nPlace, strLiteral))
                nPlace = std::min(strSource.find_first_not_of(" \n", nPlace), strSource.size());
            texts.insert(unescaped(strLiteral));
        }
    }
    return texts;
}
} // namespace

TEST(LogTexts, AreTheFormatsOfTheLibrary)
{
    const std::set<std::string> texts = textsOfLibrary();
    for (const CLogText& text : logTexts())
        EXPECT_EQ(texts.count(text.m_pszFormat), 1U) << text.m_pszFormat;
}

TEST(LogTexts, NameOperationsOfTheLibrary)
{
    const std::set<std::string> texts = textsOfLibrary();
    for (const CLogCall& call : logCalls())
    {
        const auto begins = [&](const std::string& strText) {
            const size_t nName = findClassName(strText);
            if (nName == std::string::npos)
                return false;
            const std::string strRest = strText.substr(nName);
            for (const std::string_view strvClass : {STREAM_CLASS, SERVICES_CLASS})
            {
                const std::string strBegin = std::string(strvClass) + std::string(call.m_strvName);
                if (strRest.starts_with(strBegin) &&
                    !std::isalnum(static_cast<unsigned char>(strRest[strBegin.size()])))
                    return true;
            }
            return false;
        };
        EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), begins)) << call.m_strvName;
    }
}

TEST(LogTexts, HaveAConversionForEachPlace)
{
    for (const CLogText& text : logTexts())
    {
        const std::string strFormat = text.m_pszFormat;
        const std::string strPlaces = text.m_pszPlaces;
        const auto nConversions = std::count(strFormat.begin(), strFormat.end(), '%');
        EXPECT_LE(strPlaces == "E" ? 0 : static_cast<long>(strPlaces.size()), nConversions) << strFormat;
        EXPECT_NE(findClassName(strFormat), std::string::npos) << strFormat;
    }
}
