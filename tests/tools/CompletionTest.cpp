// Shells complete command lines of zelmedia: bash, and zsh and fish where they are installed.
#include "Places.h"
#include "ToolRun.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace
{
const std::string PROGRAM_FOLDER = std::filesystem::path(ZELMEDIA_PROGRAM).parent_path();

std::vector<std::string> linesOf(const std::string& strText)
{
    std::vector<std::string> vLines;
    std::istringstream text(strText);
    for (std::string strLine; std::getline(text, strLine);)
        vLines.push_back(strLine);
    return vLines;
}

// What the script prints in this shell, with zelmedia on the PATH.
std::vector<std::string> runIn(const std::string& strShell, const std::string& strScript)
{
    std::ofstream("/tmp/script") << strScript;
    const std::string strCommand = "PATH=\"" + PROGRAM_FOLDER + ":$PATH\" " + strShell + " /tmp/script < /dev/null";
    std::string strOutput;
    FILE* const pPipe = popen(strCommand.c_str(), "r");
    for (int nByte; (nByte = std::fgetc(pPipe)) != EOF;)
        strOutput += static_cast<char>(nByte);
    pclose(pPipe);
    return linesOf(strOutput);
}

bool hasShell(const std::string& strShell)
{
    return std::system(("command -v " + strShell + " > /dev/null").c_str()) == 0;
}

// What bash proposes for the last one of these words; "compopt -o default" stands for names of files.
std::vector<std::string> inBash(const std::string& strWords)
{
    return runIn("bash --norc", "source <(zelmedia completion bash)\n"
                                "compopt() { echo compopt \"$@\"; }\n"
                                "COMP_WORDS=(" +
                                    strWords +
                                    ")\n"
                                    "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                                    "_zelmedia\n"
                                    "for word in \"${COMPREPLY[@]}\"; do echo \"$word\"; done\n");
}

const char* const FILES = "compopt -o default";
} // namespace

TEST(Completion, BashCompletesSubcommands)
{
    EXPECT_THAT(inBash("zelmedia sta"), ElementsAre("status"));
    EXPECT_THAT(inBash("zelmedia pl"), ElementsAre("play"));
    EXPECT_THAT(inBash("zelmedia ''"), testing::IsSupersetOf({"play", "status", "clean", "explain", "completion"}));
    EXPECT_THAT(inBash("zelmedia phrases b"), ElementsAre("build"));
}

TEST(Completion, BashCompletesOptionsOfTheSubcommand)
{
    EXPECT_THAT(inBash("zelmedia status --ti"), ElementsAre("--timeout"));
    EXPECT_THAT(inBash("zelmedia clean --"),
                testing::UnorderedElementsAre("--help", "--json", "--process-id", "--dry-run"));
    EXPECT_THAT(inBash("zelmedia status --timeout 2s --pi"), ElementsAre("--pings"));
    EXPECT_THAT(inBash("zelmedia status --timeout = 2s --pi"), ElementsAre("--pings"));
}

TEST(Completion, BashCompletesNamesOfFiles)
{
    EXPECT_THAT(inBash("zelmedia play gre"), ElementsAre(FILES));
    EXPECT_THAT(inBash("zelmedia play --call 17 one.wav gre"), ElementsAre(FILES));
    EXPECT_THAT(inBash("zelmedia dump --control /tm"), ElementsAre(FILES));
    EXPECT_THAT(inBash("zelmedia trace Med"), ElementsAre(FILES));
}

TEST(Completion, BashCompletesValues)
{
    EXPECT_THAT(inBash("zelmedia explain MCS_NOR"), ElementsAre("MCS_NORESPONSE"));
    EXPECT_THAT(inBash("zelmedia completion ''"), ElementsAre("bash", "zsh", "fish"));
}

TEST(Completion, WhatCannotBeCompletedIsLeftAlone)
{
    EXPECT_THAT(inBash("zelmedia status --timeout ''"), IsEmpty());
    EXPECT_THAT(inBash("zelmedia nonsense"), IsEmpty());
    EXPECT_THAT(inBash("zelmedia status more"), IsEmpty());
    EXPECT_THAT(inBash("zelmedia completion bash b"), IsEmpty());
}

TEST(Completion, HiddenSubcommandsAreNotProposed)
{
    EXPECT_THAT(inBash("zelmedia compl"), ElementsAre("completion"));
}

TEST(Completion, ZshCompletesWithDescriptions)
{
    if (!hasShell("zsh"))
        GTEST_SKIP() << "there is no zsh here";
    const auto inZsh = [](const std::string& strWords) {
        return runIn("zsh -f", "compdef() { }\n_describe() { print -l -- ${(P)2} }\n_files() { print FILES }\n"
                               "source <(zelmedia completion zsh)\n"
                               "words=(" +
                                   strWords + ")\nCURRENT=${#words}\n_zelmedia\n");
    };
    EXPECT_THAT(inZsh("zelmedia sta"), ElementsAre(StartsWith("status:Tell whether")));
    EXPECT_THAT(inZsh("zelmedia status --ti"), ElementsAre(StartsWith("--timeout:How long")));
    EXPECT_THAT(inZsh("zelmedia play gre"), ElementsAre("FILES"));
}

TEST(Completion, FishCompletesWithDescriptions)
{
    if (!hasShell("fish"))
        GTEST_SKIP() << "there is no fish here";
    const auto inFish = [](const std::string& strLine) {
        return runIn("HOME=/tmp fish --no-config", "cd /tmp\nzelmedia completion fish | source\n"
                                                   "complete -C '" +
                                                       strLine + "'\n");
    };
    std::ofstream("/tmp/greeting.wav") << "sound";
    EXPECT_THAT(inFish("zelmedia sta"), ElementsAre(StartsWith("status\tTell whether")));
    EXPECT_THAT(inFish("zelmedia status --ti"), ElementsAre(StartsWith("--timeout\tHow long")));
    EXPECT_THAT(inFish("zelmedia play gre"), Contains(StartsWith("greeting.wav")));
}

TEST(Completion, AnUnknownShellIsWrongUsage)
{
    CToolRun run({"completion", "tcsh"});
    EXPECT_EQ(run.waitExit(), 2);
}
