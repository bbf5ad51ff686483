// Words as JSON objects, and objects read field by field.
#include "Fields.h"

#include <gmock/gmock.h>

#include <vector>

using nlohmann::json;
using testing::HasSubstr;

namespace
{
json mustParse(const std::string& strList)
{
    json object;
    std::string strError;
    EXPECT_TRUE(parseWordList(strList, object, strError)) << strError;
    return object;
}

std::string errorOfParse(const std::string& strList)
{
    json object;
    std::string strError;
    EXPECT_FALSE(parseWordList(strList, object, strError)) << object;
    return strError;
}
} // namespace

TEST(Words, BecomeTextNumbersAndTruthValues)
{
    EXPECT_EQ(mustParse("do=refuse,on=playfile,nth=3"), json({{"do", "refuse"}, {"on", "playfile"}, {"nth", 3}}));
    EXPECT_EQ(mustParse("a=-7,b=true,c=false,d="), json({{"a", -7}, {"b", true}, {"c", false}, {"d", ""}}));
    EXPECT_EQ(mustParse("a=x=y"), json({{"a", "x=y"}}));
    EXPECT_EQ(mustParse("a=3x,b=1.5,c=99999999999999999999"),
              json({{"a", "3x"}, {"b", "1.5"}, {"c", "99999999999999999999"}}));
}

TEST(Words, KeepACallIdAsText)
{
    EXPECT_EQ(mustParse("call=1001,leg=1"), json({{"call", "1001"}, {"leg", 1}}));
    EXPECT_EQ(mustParse("call=true"), json({{"call", "true"}}));
}

TEST(Words, MustHaveAKeyAndAValue)
{
    EXPECT_EQ(errorOfParse("nth"), "\"nth\" is not of the form key=value");
    EXPECT_EQ(errorOfParse("=3"), "\"=3\" is not of the form key=value");
    EXPECT_EQ(errorOfParse(""), "\"\" is not of the form key=value");
    EXPECT_EQ(errorOfParse("a=1,,b=2"), "\"\" is not of the form key=value");
    EXPECT_EQ(errorOfParse("\x1b[m"), "\"\\x1b[m\" is not of the form key=value");
}

TEST(Words, MustNotGiveAKeyTwice)
{
    EXPECT_EQ(errorOfParse("a=1,a=2"), "\"a\" is given twice");
    json object = {{"request", "fault"}};
    std::string strError;
    const std::vector<std::string> vWords = {"request=die"};
    EXPECT_FALSE(addWords(vWords, object, strError));
    EXPECT_EQ(strError, "\"request\" is given twice");
}

TEST(FieldReader, GivesOutFieldsOfTheRightType)
{
    const json object = {{"text", "x"}, {"number", 5}};
    CFieldReader reader(object);
    EXPECT_EQ(reader.text("text"), "x");
    EXPECT_EQ(reader.number("number", 1, 10), 5);
    EXPECT_EQ(reader.text("other"), std::nullopt);
    EXPECT_EQ(reader.number("another", 1, 10), std::nullopt);
    std::string strError;
    EXPECT_TRUE(reader.finish(strError));
}

TEST(FieldReader, FindsWrongTypes)
{
    for (const json& value : {json(1), json(nullptr), json(true), json::array(), json::object()})
    {
        const json object = {{"a", value}};
        CFieldReader reader(object);
        EXPECT_EQ(reader.text("a"), std::nullopt);
        std::string strError;
        EXPECT_FALSE(reader.finish(strError));
        EXPECT_EQ(strError, "\"a\" must be text");
    }
    for (const json& value : {json("1"), json(nullptr), json(true), json(1.0), json::array({1})})
    {
        const json object = {{"a", value}};
        CFieldReader reader(object);
        EXPECT_EQ(reader.number("a", 0, 10), std::nullopt);
        std::string strError;
        EXPECT_FALSE(reader.finish(strError));
        EXPECT_EQ(strError, "\"a\" must be a whole number from 0 to 10");
    }
}

TEST(FieldReader, KeepsNumbersWithinTheirRange)
{
    const json object = json::parse(R"({"low":-1,"high":11,"huge":18446744073709551615,"first":0,"last":10})");
    for (const char* pKey : {"low", "high", "huge"})
    {
        CFieldReader reader(object);
        EXPECT_EQ(reader.number(pKey, 0, 10), std::nullopt) << pKey;
    }
    CFieldReader reader(object);
    EXPECT_EQ(reader.number("huge", -5, 10), std::nullopt);
    EXPECT_EQ(reader.number("first", 0, 10), 0);
    EXPECT_EQ(reader.number("last", 0, 10), 10);
}

TEST(FieldReader, FindsFieldsThatNobodyAsksFor)
{
    const json object = {{"a", "x"}, {"extra", 5}};
    CFieldReader reader(object);
    reader.text("a");
    std::string strError;
    EXPECT_FALSE(reader.finish(strError));
    EXPECT_EQ(strError, "\"extra\" has no meaning here");
}

TEST(FieldReader, TellsTheFirstMistake)
{
    const json object = {{"a", 1}, {"b", 2}};
    CFieldReader reader(object);
    reader.text("b");
    reader.fail("something else");
    std::string strError;
    EXPECT_FALSE(reader.finish(strError));
    EXPECT_EQ(strError, "\"b\" must be text");
}
