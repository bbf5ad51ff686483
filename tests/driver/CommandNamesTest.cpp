// The short names of the commands.
#include "CommandNames.h"

#include <gtest/gtest.h>

TEST(CommandNames, AreFoundInBothDirections)
{
    EXPECT_EQ(CommandNames().size(), 16U);
    for (const CCommandName& command : CommandNames())
    {
        EXPECT_EQ(FindCommandName(command.m_pName), &command);
    }
    ASSERT_NE(FindCommandName("playfile"), nullptr);
    EXPECT_EQ(FindCommandName("playfile")->m_micmd, MICMD_PLAYFILE);
    EXPECT_EQ(FindCommandName("PLAYFILE"), nullptr);
    EXPECT_EQ(FindCommandName(""), nullptr);
}
