// The C++ header with the constants of a phrase file, for applications.
#include "phrases/PhraseHeader.h"

#include "base/ToolError.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <map>

namespace
{
bool isLetterOrDigit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

char upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

std::string identifier(const std::string& strName)
{
    std::string strResult;
    for (const char c : strName)
        strResult += isLetterOrDigit(c) ? c : '_';
    return strResult;
}

std::string constant(const std::string& strName)
{
    std::string strResult = identifier(strName);
    for (char& c : strResult)
        c = upper(c);
    return "PHRASE_" + strResult;
}

// No word of the language begins with a capital.
std::string namespaceOf(const std::string& strHeaderPath)
{
    std::string strResult = identifier(std::filesystem::path(strHeaderPath).stem().string());
    if (strResult.empty() || !isLetterOrDigit(strResult[0]) || (strResult[0] >= '0' && strResult[0] <= '9'))
        strResult = "Phrases" + strResult;
    strResult[0] = upper(strResult[0]);
    return strResult;
}
} // namespace

std::string phraseHeaderText(const CPhraseIndex& index, const std::string& strHeaderPath)
{
    const std::string strNamespace = namespaceOf(strHeaderPath);
    const std::string strGuard = "ZELMEDIA_" + constant(strNamespace) + "_H";
    std::string strText =
        "// Phrases for playAddPhrase. Made by 'zelmedia phrases build': changes are lost.\n#ifndef " + strGuard +
        "\n#define " + strGuard + "\n\nnamespace " + strNamespace +
        "\n{\nstruct CPhrase\n{\n    unsigned long m_ulOffset; // samples, 8000 a second\n"
        "    unsigned long m_ulLength;\n};\n\nconst char PHRASE_FILE[] = " +
        nlohmann::json(index.m_strFile).dump() + ";\n\n";
    std::map<std::string, std::string> names = {{"PHRASE_FILE", ""}};
    for (const CPhrase& phrase : index.m_vPhrases)
    {
        const std::string strConstant = constant(phrase.m_strName);
        const auto [it, bNew] = names.emplace(strConstant, phrase.m_strName);
        if (!bNew)
            throw CToolError(EXIT_CODE_USAGE,
                             "the phrase " + phrase.m_strName + " cannot be " + strConstant +
                                 " in a header: " + (it->second.empty() ? "the phrase file" : it->second) + " is");
        strText += "constexpr CPhrase " + strConstant + " = {" + std::to_string(phrase.m_nOffset) + ", " +
                   std::to_string(phrase.m_nLength) + "};\n";
    }
    return strText + "} // namespace " + strNamespace + "\n\n#endif\n";
}
