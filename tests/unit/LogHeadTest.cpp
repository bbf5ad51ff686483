// Tests of what stands before the text of a line, and of the room that it takes.
#include "LogHead.h"

#include <climits>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <thread>
#include <unistd.h>

using namespace OrvLogLib;

namespace
{
std::string headOf(const CLogSettings& settings, LogLib_Priority priority)
{
    CLogHead head;
    head.applySettings(settings);
    std::string strBuffer(CLogHead::MAX_LENGTH + 64, '\xA5');
    const size_t nLength = head.write(strBuffer.data(), priority);
    EXPECT_LE(nLength, CLogHead::MAX_LENGTH);
    EXPECT_EQ(strBuffer.substr(CLogHead::MAX_LENGTH), std::string(64, '\xA5'));
    return strBuffer.substr(0, nLength);
}
} // namespace

TEST(LogHead, HasDateTimeProcessThreadPriorityAndPrefix)
{
    CLogSettings settings;
    settings.pszLinePrefix = "[here] ";
    const std::string strIDs = " p" + std::to_string(getpid()) + " t" + std::to_string(gettid()) + " ";
    const std::string strTime = "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{";
    EXPECT_TRUE(std::regex_match(headOf(settings, LogLib_Low), std::regex(strTime + "6}" + strIDs + "4 \\[here\\] ")));
    settings.nMicroseconds = 0;
    EXPECT_TRUE(
        std::regex_match(headOf(settings, LogLib_High), std::regex(strTime + "3}" + strIDs + "64 \\[here\\] ")));
}

TEST(LogHead, LongestOneFitsIntoItsRoom)
{
    const std::string strPrefix(1000, '\n');
    CLogSettings settings;
    settings.pszLinePrefix = strPrefix.c_str();
    for (const int nPriority : {INT_MIN, INT_MAX})
    {
        const std::string strHead = headOf(settings, static_cast<LogLib_Priority>(nPriority));
        EXPECT_EQ(strHead.substr(strHead.size() - 201), std::string(201, ' ')) << "of the prefix 200 bytes are shown";
        EXPECT_NE(strHead.find(" " + std::to_string(nPriority) + " "), std::string::npos);
    }
}

TEST(LogHead, EveryThreadHasItsOwnID)
{
    const std::string strMine = headOf(CLogSettings(), LogLib_Normal);
    std::string strOther;
    std::string strExpected;
    std::thread([&] {
        strOther = headOf(CLogSettings(), LogLib_Normal);
        strExpected = " p" + std::to_string(getpid()) + " t" + std::to_string(gettid()) + " ";
    }).join();
    EXPECT_NE(strOther.find(strExpected), std::string::npos);
    EXPECT_EQ(strMine.find(strExpected), std::string::npos);
}
