// The subcommand explain of zelmedia knows every status of the public header.
#include "Places.h"
#include "ToolRun.h"
#include "explain/StatusTable.h"

#include <gmock/gmock.h>

#include <fstream>
#include <map>
#include <regex>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace
{
// The MCS_ constants as the header's text has them.
std::map<std::string, int> constantsOfHeader()
{
    std::map<std::string, int> mapConstants;
    std::ifstream header(PUBLIC_HEADER);
    const std::regex constant("^ *(MCS_[A-Z]+) = ([0-9]+),?.*");
    std::smatch match;
    for (std::string strLine; std::getline(header, strLine);)
        if (std::regex_match(strLine, match, constant))
            mapConstants[match[1]] = std::stoi(match[2]);
    return mapConstants;
}
} // namespace

TEST(Explain, HasAnEntryForEachStatusOfTheHeader)
{
    const std::map<std::string, int> mapConstants = constantsOfHeader();
    ASSERT_GE(mapConstants.size(), 17U);
    for (const auto& [strName, nValue] : mapConstants)
    {
        const CStatusEntry* const pEntry = findStatus(strName);
        ASSERT_NE(pEntry, nullptr) << strName;
        EXPECT_EQ(pEntry->mcstatus, nValue) << strName;
        EXPECT_EQ(findStatus(nValue), pEntry) << strName;
    }
}

TEST(Explain, HasNoStatusThatTheHeaderHasNot)
{
    const std::map<std::string, int> mapConstants = constantsOfHeader();
    for (const CStatusEntry& entry : statusTable())
        if (entry.pszName)
            EXPECT_EQ(mapConstants.count(entry.pszName), 1U) << entry.pszName;
        else
            EXPECT_STREQ(MCSTATUSToString(entry.mcstatus), "MCSTATUS unknown") << entry.mcstatus;
}

TEST(Explain, EntriesAreCompleteAndSortedByValue)
{
    int nBefore = -1;
    for (const CStatusEntry& entry : statusTable())
    {
        EXPECT_LT(nBefore, entry.mcstatus);
        nBefore = entry.mcstatus;
        for (const char* const pszText : {entry.pszMeaning, entry.pszWhen, entry.pszWhatToDo})
            EXPECT_EQ(std::string(pszText).back(), '.') << entry.mcstatus;
    }
}

TEST(Explain, TellsWhatWhenAndWhatToDo)
{
    CToolRun run({"explain", "16"});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_THAT(run.output(), StartsWith("16 MCS_NORESPONSE\n         The driver did not answer"));
    EXPECT_THAT(run.output(), HasSubstr("\nwhen     "));
    EXPECT_THAT(run.output(), HasSubstr("\ndo       "));
}

TEST(Explain, TakesNamesInAnyCaseAndHexadecimalNumbers)
{
    for (const char* const pszStatus : {"MCS_NORESPONSE", "mcs_noresponse", "NoResponse", "0x10", "0x00000010"})
    {
        CToolRun run({"explain", pszStatus});
        EXPECT_EQ(run.waitExit(), 0) << pszStatus;
        EXPECT_THAT(run.output(), StartsWith("16 MCS_NORESPONSE\n")) << pszStatus;
    }
}

TEST(Explain, ParagraphsFitTheTerminal)
{
    CToolRun run({"explain", "2", "45", "46", "47"}, CToolRun::TO_TERMINAL);
    EXPECT_EQ(run.waitExit(), 0);
    std::istringstream lines(run.output());
    for (std::string strLine; std::getline(lines, strLine);)
        if (strLine.find('\033') == std::string::npos) // else a heading
            EXPECT_LE(strLine.size(), 81U) << strLine; // with the terminal's carriage return
}

TEST(Explain, ListsAllWithoutAStatus)
{
    CToolRun run({"explain"});
    EXPECT_EQ(run.waitExit(), 0);
    for (const auto& [strName, nValue] : constantsOfHeader())
        EXPECT_THAT(run.output(), HasSubstr(std::to_string(nValue) + "  " + strName));
}

TEST(Explain, AnswersInJson)
{
    CToolRun run({"explain", "--json", "timedout", "5"});
    EXPECT_EQ(run.waitExit(), 0);
    const nlohmann::json statuses = run.json()["statuses"];
    ASSERT_THAT(statuses, SizeIs(2));
    EXPECT_EQ(statuses[0]["status"], 46);
    EXPECT_EQ(statuses[0]["name"], "MCS_TIMEDOUT");
    EXPECT_EQ(statuses[1]["name"], nullptr);
    EXPECT_EQ(statuses[1]["meaning"], "The caller has hung up.");
}

TEST(Explain, OtherNumbersAreTheDriversOwn)
{
    for (const char* const pszStatus : {"77", "-3", "0xFFFFFFFD"})
    {
        CToolRun run({"explain", pszStatus});
        EXPECT_EQ(run.waitExit(), 0) << run.errors();
        EXPECT_THAT(run.output(), HasSubstr(" the media driver's own\n"));
    }
}

TEST(Explain, AMistypedNameIsWrongUsageWithAProposal)
{
    CToolRun run({"explain", "MCS_NORESPONS"});
    EXPECT_EQ(run.waitExit(), 2);
    EXPECT_EQ(run.errors(), "zelmedia: there is no status \"MCS_NORESPONS\": did you mean MCS_NORESPONSE?\n");
}

TEST(Explain, WhatIsNoStatusIsWrongUsage)
{
    for (const std::string& strStatus : {std::string(""), std::string("0x"), std::string("99999999999999999999"),
                                         std::string("4294967296"), std::string("16x"), std::string(100000, 'z')})
    {
        CToolRun run({"explain", strStatus});
        EXPECT_EQ(run.waitExit(), 2) << strStatus.substr(0, 20);
    }
}

TEST(Explain, ProposesTheClosestNames)
{
    EXPECT_THAT(closestStatusNames("canceled"), ElementsAre("MCS_CANCELLED"));
    EXPECT_THAT(closestStatusNames("timeout"), ElementsAre("MCS_TIMEDOUT"));
    EXPECT_THAT(closestStatusNames("pipe"),
                ElementsAre("MCS_PIPECREATE", "MCS_PIPEOPEN", "MCS_PIPEREAD", "MCS_PIPEWRITE"));
    EXPECT_THAT(closestStatusNames("xyzzyxyzzy"), IsEmpty());
}
