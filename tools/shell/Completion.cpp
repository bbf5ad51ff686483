// What can follow on a command line of zelmedia that is being typed.
#include "shell/Completion.h"
#include "explain/StatusTable.h"

#include <sstream>

namespace
{
bool isListed(const CLI::App* pApp)
{
    return !pApp->get_group().empty();
}

bool isListed(const CLI::Option* pOption)
{
    return !pOption->get_group().empty();
}

std::vector<const CLI::App*> subcommandsOf(const CLI::App& app)
{
    return app.get_subcommands([](const CLI::App* pSubcommand) { return isListed(pSubcommand); });
}

std::vector<const CLI::Option*> optionsOf(const CLI::App& app)
{
    return app.get_options([](const CLI::Option* pOption) { return isListed(pOption); });
}

bool takesValue(const CLI::Option& option)
{
    return option.get_items_expected_max() > 0;
}

// The choices of "TEXT:{bash,zsh,fish}".
std::vector<std::string> choicesOf(const std::string& strType)
{
    const size_t nStart = strType.find('{');
    const size_t nEnd = strType.find('}', nStart);
    std::vector<std::string> vChoices;
    if (nStart == std::string::npos || nEnd == std::string::npos)
        return vChoices;
    std::istringstream text(strType.substr(nStart + 1, nEnd - nStart - 1));
    for (std::string strChoice; std::getline(text, strChoice, ',');)
        vChoices.push_back(strChoice);
    return vChoices;
}

// The text that stands in the help for a value says what can be one.
CCompletion valuesOf(const CLI::Option& option)
{
    const std::string strType = option.get_type_name();
    const std::string strShown = strType + ' ' + option.get_name(true, true);
    CCompletion completion;
    for (const char* const pszPath : {"FILE", "PATH", "INDEX", "--output"})
        completion.bFiles = completion.bFiles || strShown.find(pszPath) != std::string::npos;
    for (const std::string& strChoice : choicesOf(strType))
        completion.vCandidates.push_back({strChoice, ""});
    if (strType == "STATUS")
    {
        for (const CStatusEntry& entry : statusTable())
            if (entry.pszName)
                completion.vCandidates.push_back({entry.pszName, entry.pszMeaning});
    }
    return completion;
}

CCompletion namesOfOptions(const CLI::App& app)
{
    CCompletion completion;
    for (const CLI::Option* const pOption : optionsOf(app))
    {
        for (const std::string& strName : pOption->get_lnames())
            completion.vCandidates.push_back({"--" + strName, pOption->get_description()});
        for (const std::string& strName : pOption->get_snames())
            completion.vCandidates.push_back({"-" + strName, pOption->get_description()});
    }
    return completion;
}

CCompletion namesOfSubcommands(const CLI::App& app)
{
    CCompletion completion;
    for (const CLI::App* const pSubcommand : subcommandsOf(app))
        completion.vCandidates.push_back({pSubcommand->get_name(), pSubcommand->get_description()});
    return completion;
}

// Follows the words that are complete.
class CWalk
{
public:
    explicit CWalk(const CLI::App& app) : m_pApp(&app) {}

    void step(const std::string& strWord)
    {
        if (strWord == "=" && m_pOption) // bash has split --name=value
            return;
        if (m_pOption)
            m_pOption = nullptr;
        else if (strWord.size() > 1 && strWord[0] == '-' && !m_bOnlyValues)
            stepOption(strWord);
        else if (const CLI::App* const pSubcommand = findSubcommand(strWord))
            *this = CWalk(*pSubcommand);
        else
            ++m_nValues;
    }

    CCompletion candidatesFor(const std::string& strWord) const
    {
        if (m_pOption)
            return valuesOf(*m_pOption);
        if (!strWord.empty() && strWord[0] == '-' && !m_bOnlyValues)
            return namesOfOptions(*m_pApp);
        if (!subcommandsOf(*m_pApp).empty())
            return namesOfSubcommands(*m_pApp);
        const CLI::Option* const pPositional = nextPositional();
        return pPositional ? valuesOf(*pPositional) : CCompletion();
    }

private:
    void stepOption(const std::string& strWord)
    {
        m_bOnlyValues = strWord == "--";
        const CLI::Option* const pOption = m_pApp->get_option_no_throw(strWord);
        if (pOption && takesValue(*pOption))
            m_pOption = pOption;
    }

    const CLI::App* findSubcommand(const std::string& strWord) const
    {
        for (const CLI::App* const pSubcommand : subcommandsOf(*m_pApp))
            if (pSubcommand->get_name() == strWord)
                return pSubcommand;
        return nullptr;
    }

    const CLI::Option* nextPositional() const
    {
        int nBefore = m_nValues;
        for (const CLI::Option* const pOption : optionsOf(*m_pApp))
        {
            if (!pOption->get_positional())
                continue;
            if (nBefore < pOption->get_items_expected_max())
                return pOption;
            nBefore -= pOption->get_items_expected_max();
        }
        return nullptr;
    }

    const CLI::App* m_pApp;
    const CLI::Option* m_pOption = nullptr; // that waits for its value
    int m_nValues = 0;                      // that belong to no option
    bool m_bOnlyValues = false;             // behind "--"
};
} // namespace

CCompletion complete(const CLI::App& app, const std::vector<std::string>& vWords)
{
    if (vWords.empty())
        return CCompletion();
    CWalk walk(app);
    for (size_t nWord = 0; nWord + 1 < vWords.size(); ++nWord)
        walk.step(vWords[nWord]);
    const std::string strStart = vWords.back() == "=" ? "" : vWords.back();
    CCompletion completion = walk.candidatesFor(strStart);
    std::erase_if(completion.vCandidates,
                  [&strStart](const CCandidate& candidate) { return !candidate.strWord.starts_with(strStart); });
    return completion;
}
