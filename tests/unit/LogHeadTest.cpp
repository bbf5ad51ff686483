// Tests of what stands before the text of a line, and of the room that it takes.
#include "LogHead.h"

#include <climits>
#include <cstring>
#include <ctime>
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

TEST(LogHead, TimeGoesOnFromSecondToSecond)
{
    CLogSettings settings;
    settings.nUtc = 1;
    CLogHead head;
    head.applySettings(settings);
    char szBuffer[CLogHead::MAX_LENGTH];
    const auto second = [&] {
        head.write(szBuffer, LogLib_Normal);
        return std::string(szBuffer, strlen("2026-11-21 04:05:06"));
    };
    const auto now = [] {
        timespec time;
        clock_gettime(CLOCK_REALTIME, &time);
        char szTime[32] = "";
        tm parts;
        strftime(szTime, sizeof(szTime), "%Y-%m-%d %H:%M:%S", gmtime_r(&time.tv_sec, &parts));
        return std::string(szTime);
    };
    const std::string strFirst = second();
    while (now() == strFirst)
        std::this_thread::yield();
    const std::string strBefore = now();
    const std::string strSecond = second();
    EXPECT_LE(strBefore, strSecond);
    EXPECT_LE(strSecond, now());
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
