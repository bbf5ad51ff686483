// The command zelmedia as a whole: help, version, wrong usage.
#include "ToolRun.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

TEST(ToolProgram, HelpNamesTheExitCodes)
{
    CToolRun run({"--help"});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_THAT(run.output(), HasSubstr("3 no media driver"));
}

TEST(ToolProgram, AnUnknownSubcommandIsWrongUsage)
{
    CToolRun run({"paly"});
    EXPECT_EQ(run.waitExit(), 2);
    EXPECT_THAT(run.errors(), HasSubstr("zelmedia: "));
    EXPECT_EQ(run.output(), "");
}

TEST(ToolProgram, NoSubcommandIsWrongUsage)
{
    CToolRun run({});
    EXPECT_EQ(run.waitExit(), 2);
    EXPECT_THAT(run.errors(), HasSubstr("subcommand is required"));
}
