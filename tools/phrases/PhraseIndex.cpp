// CPhraseIndex: which phrases a phrase file holds, and where; kept as JSON beside it.
#include "phrases/PhraseIndex.h"

#include "base/ToolError.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace
{
constexpr std::uintmax_t MAX_INDEX_BYTES = 16 << 20;
constexpr int RATE = 8000;
constexpr int PHRASE_NAME_DEPTH = 2;

std::string contentOf(const std::string& strPath)
{
    std::error_code error;
    const auto status = std::filesystem::status(strPath, error);
    if (!std::filesystem::exists(status))
        throw CToolError(EXIT_CODE_USAGE, strPath + ": " + (error ? error.message() : "there is no such file"));
    if (!std::filesystem::is_regular_file(status))
        throw CToolError(EXIT_CODE_USAGE, strPath + ": it is not a regular file");
    if (std::filesystem::file_size(strPath, error) > MAX_INDEX_BYTES)
        throw CToolError(EXIT_CODE_USAGE, strPath + ": it is too large for an index");
    std::ifstream file(strPath, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    if (!file.is_open() || file.bad())
        throw CToolError(EXIT_CODE_USAGE, strPath + ": it cannot be read");
    return content.str();
}

// The parser keeps the last of two members of a name; here they are a mistake.
nlohmann::json parse(const std::string& strText, std::vector<std::string>& vProblems)
{
    std::set<std::string> names;
    const auto check = [&](int nDepth, nlohmann::json::parse_event_t event, nlohmann::json& parsed) {
        if (event != nlohmann::json::parse_event_t::key)
            return true;
        if (nDepth < PHRASE_NAME_DEPTH)
            names.clear();
        else if (nDepth == PHRASE_NAME_DEPTH && !names.insert(parsed.get<std::string>()).second)
            vProblems.push_back(parsed.dump() + " is there twice");
        return true;
    };
    try
    {
        return nlohmann::json::parse(strText, check);
    }
    catch (const nlohmann::json::parse_error& error)
    {
        vProblems.push_back("it is not JSON, at byte " + std::to_string(error.byte));
    }
    catch (const nlohmann::json::out_of_range&)
    {
        vProblems.push_back("there is a number in it that is too large");
    }
    return nullptr;
}

std::optional<uint32_t> samplesAt(const nlohmann::json& phrase, const char* pszKey)
{
    if (!phrase.is_object() || !phrase.contains(pszKey) || !phrase[pszKey].is_number_unsigned())
        return std::nullopt;
    const auto ullSamples = phrase[pszKey].get<uint64_t>();
    return ullSamples <= UINT32_MAX ? std::optional(static_cast<uint32_t>(ullSamples)) : std::nullopt;
}

std::vector<CPhrase> phrasesIn(const nlohmann::json& phrases, std::vector<std::string>& vProblems)
{
    std::vector<CPhrase> vPhrases;
    for (const auto& [strName, phrase] : phrases.items())
    {
        const std::string strProblem = problemOfName(strName);
        const auto offset = samplesAt(phrase, "offset");
        const auto length = samplesAt(phrase, "length");
        if (!strProblem.empty())
            vProblems.push_back("phrase " + nlohmann::json(strName).dump() + ": " + strProblem);
        else if (!offset || !length)
            vProblems.push_back("phrase " + nlohmann::json(strName).dump() + ": " + (offset ? "length" : "offset") +
                                " is no number of samples");
        else
            vPhrases.push_back({strName, *offset, *length});
    }
    std::stable_sort(vPhrases.begin(), vPhrases.end(),
                     [](const CPhrase& left, const CPhrase& right) { return left.m_nOffset < right.m_nOffset; });
    return vPhrases;
}
} // namespace

const CPhrase* CPhraseIndex::find(const std::string& strName) const
{
    const auto it = std::find_if(m_vPhrases.begin(), m_vPhrases.end(),
                                 [&](const CPhrase& phrase) { return phrase.m_strName == strName; });
    return it == m_vPhrases.end() ? nullptr : &*it;
}

std::string problemOfName(const std::string& strName)
{
    if (strName.empty())
        return "its name is empty";
    if (std::any_of(strName.begin(), strName.end(), [](char c) { return (c >= 0 && c < ' ') || c == '\177'; }))
        return "there are control characters in its name";
    try
    {
        nlohmann::json(strName).dump();
        return "";
    }
    catch (const nlohmann::json::exception&)
    {
        return "its name is not UTF-8";
    }
}

CPhraseIndex readPhraseIndex(const std::string& strPath, std::vector<std::string>& vProblems)
{
    const nlohmann::json document = parse(contentOf(strPath), vProblems);
    CPhraseIndex index;
    if (!document.is_object())
    {
        if (vProblems.empty())
            vProblems.push_back("it is no JSON object");
        return index;
    }
    const nlohmann::json file = document.value("file", nlohmann::json());
    if (file.is_string() && problemOfName(file.get<std::string>()).empty())
        index.m_strFile = (std::filesystem::path(strPath).parent_path() / file.get<std::string>()).lexically_normal();
    else
        vProblems.push_back("\"file\" is no file name");
    if (document.value("rate", nlohmann::json()) != RATE)
        vProblems.push_back("\"rate\" is not 8000");
    const nlohmann::json phrases = document.value("phrases", nlohmann::json());
    if (phrases.is_object())
        index.m_vPhrases = phrasesIn(phrases, vProblems);
    else
        vProblems.push_back("\"phrases\" is no JSON object");
    return index;
}

CPhraseIndex readPhraseIndex(const std::string& strPath)
{
    std::vector<std::string> vProblems;
    CPhraseIndex index = readPhraseIndex(strPath, vProblems);
    if (!vProblems.empty())
        throw CToolError(EXIT_CODE_USAGE, strPath + ": " + vProblems.front() +
                                              (vProblems.size() > 1 ? "; 'zelmedia phrases check' shows more" : ""));
    return index;
}

std::string phraseIndexText(const CPhraseIndex& index)
{
    nlohmann::ordered_json phrases = nlohmann::ordered_json::object();
    for (const CPhrase& phrase : index.m_vPhrases)
        phrases.push_back({phrase.m_strName, {{"offset", phrase.m_nOffset}, {"length", phrase.m_nLength}}});
    const nlohmann::ordered_json document = {{"file", index.m_strFile}, {"rate", RATE}, {"phrases", phrases}};
    return document.dump(2) + "\n";
}
