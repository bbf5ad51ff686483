// The man page of zelmedia describes the commands and options that there are, and no other ones.
#include "Commands.h"
#include "Places.h"
#include "base/Tool.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>

namespace
{
typedef std::map<std::string, std::set<std::string>> COptionsByCommand;

void collect(CLI::App& app, const std::string& strPath, COptionsByCommand& mapOptions)
{
    const auto vSubcommands = app.get_subcommands([](const CLI::App* pApp) { return !pApp->get_group().empty(); });
    for (CLI::App* const pSubcommand : vSubcommands)
        collect(*pSubcommand, strPath.empty() ? pSubcommand->get_name() : strPath + ' ' + pSubcommand->get_name(),
                mapOptions);
    if (!vSubcommands.empty())
        return;
    std::set<std::string>& setOptions = mapOptions[strPath];
    for (const CLI::Option* const pOption : app.get_options())
        setOptions.insert(pOption->get_lnames().begin(), pOption->get_lnames().end());
    setOptions.erase("help"); // these two are described once for all
    setOptions.erase("json");
}

COptionsByCommand optionsOfProgram()
{
    CTool tool;
    addAllCommands(tool);
    COptionsByCommand mapOptions;
    collect(tool.app(), "", mapOptions);
    return mapOptions;
}

COptionsByCommand optionsOfPage()
{
    COptionsByCommand mapOptions;
    std::set<std::string>* pSetOptions = nullptr;
    std::ifstream page(MANUAL);
    const std::regex option("^\\.It (?:Fl [a-z] , )?Fl Fl ([a-z-]+)(?: .*)?$");
    std::smatch match;
    for (std::string strLine; std::getline(page, strLine);)
        if (strLine.starts_with(".Ss "))
            pSetOptions = &mapOptions[strLine.substr(4)];
        else if (strLine.starts_with(".Sh "))
            pSetOptions = nullptr;
        else if (pSetOptions && std::regex_match(strLine, match, option))
            pSetOptions->insert(match[1]);
    return mapOptions;
}
} // namespace

TEST(Manual, DescribesTheCommandsAndOptionsThatThereAre)
{
    const COptionsByCommand mapPage = optionsOfPage();
    const COptionsByCommand mapProgram = optionsOfProgram();
    EXPECT_GE(mapProgram.size(), 12U);
    for (const auto& [strCommand, setOptions] : mapProgram)
    {
        ASSERT_EQ(mapPage.count(strCommand), 1U) << strCommand;
        EXPECT_EQ(mapPage.at(strCommand), setOptions) << strCommand;
    }
    for (const auto& [strCommand, setOptions] : mapPage)
        EXPECT_EQ(mapProgram.count(strCommand), 1U) << strCommand;
}
