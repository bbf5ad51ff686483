// The short names of the commands.
#include "CommandNames.h"

#include <gtest/gtest.h>

TEST(CommandNames, AreFoundInBothDirections)
{
    EXPECT_EQ(commandNames().size(), 16U);
    for (const CCommandName& command : commandNames())
        EXPECT_EQ(findCommandName(command.m_pName), &command);
    ASSERT_NE(findCommandName("playfile"), nullptr);
    EXPECT_EQ(findCommandName("playfile")->m_micmd, MICMD_PLAYFILE);
    EXPECT_EQ(findCommandName("PLAYFILE"), nullptr);
    EXPECT_EQ(findCommandName(""), nullptr);
}
