// The fields of a request: types, limits, what is missing and what has no meaning.
#include "JsonFields.h"

#include <gmock/gmock.h>

namespace
{
// What finish says after these were read.
template <class READ> std::string mistake(const char* pObject, READ read)
{
    const nlohmann::json object = nlohmann::json::parse(pObject);
    CJsonFields fields(object);
    read(fields);
    std::string strError;
    const bool bFine = fields.finish(strError);
    EXPECT_EQ(bFine, strError.empty());
    return strError;
}

TEST(JsonFields, AreReadByTheirTypes)
{
    EXPECT_EQ(mistake(R"({"t":"x","n":-3,"b":true,"o":{"a":1},"a":[1,2],"z":null})",
                      [](CJsonFields& fields) {
                          EXPECT_EQ(fields.text("t"), "x");
                          EXPECT_EQ(fields.number("n", -3, 3), -3);
                          EXPECT_EQ(fields.flag("b"), true);
                          EXPECT_EQ(fields.object("o")->size(), 1U);
                          EXPECT_EQ(fields.array("a")->size(), 2U);
                          EXPECT_FALSE(fields.text("z"));
                          EXPECT_TRUE(fields.has("z"));
                          EXPECT_FALSE(fields.has("y"));
                          EXPECT_FALSE(fields.number("y", 0, 1));
                      }),
              "");
}

TEST(JsonFields, OthersHaveNoMeaning)
{
    EXPECT_EQ(mistake(R"({"a":1,"b":2})", [](CJsonFields& fields) { fields.number("a", 0, 9); }),
              "\"b\" has no meaning here");
    EXPECT_EQ(mistake("{\"a\\n\":1}", [](CJsonFields&) {}), "\"a\\x0a\" has no meaning here");
}

TEST(JsonFields, WrongTypesAreMistakes)
{
    EXPECT_EQ(mistake(R"({"a":1})", [](CJsonFields& fields) { EXPECT_FALSE(fields.text("a")); }), "\"a\" must be text");
    EXPECT_EQ(mistake(R"({"a":1})", [](CJsonFields& fields) { EXPECT_FALSE(fields.flag("a")); }),
              "\"a\" must be true or false");
    EXPECT_EQ(mistake(R"({"a":[]})", [](CJsonFields& fields) { EXPECT_FALSE(fields.object("a")); }),
              "\"a\" must be an object");
    EXPECT_EQ(mistake(R"({"a":{}})", [](CJsonFields& fields) { EXPECT_FALSE(fields.array("a")); }),
              "\"a\" must be an array");
    for (const char* pObject : {R"({"a":"1"})", R"({"a":1.5})", R"({"a":10})", R"({"a":-1})",
                                R"({"a":18446744073709551615})", R"({"a":1e3})"})
    {
        EXPECT_EQ(mistake(
                      pObject, [](CJsonFields& fields) { EXPECT_FALSE(fields.number("a", 0, 9)); }),
                  "\"a\" must be a whole number from 0 to 9");
    }
}

TEST(JsonFields, TextsHaveLimits)
{
    EXPECT_EQ(mistake(R"({"a":"x"})", [](CJsonFields& fields) { fields.text("a", 1, 1); }), "");
    EXPECT_EQ(mistake(R"({"a":""})", [](CJsonFields& fields) { EXPECT_FALSE(fields.text("a", 1)); }),
              "\"a\" must have at least 1 bytes");
    EXPECT_EQ(mistake(R"({"a":"xyz"})", [](CJsonFields& fields) { EXPECT_FALSE(fields.text("a", 1, 2)); }),
              "\"a\" must have 1 to 2 bytes");
}

TEST(JsonFields, WhatIsNeededMustBeThere)
{
    EXPECT_EQ(mistake(
                  "{}", [](CJsonFields& fields) { EXPECT_EQ(fields.neededText("a"), ""); }),
              "\"a\" is missing");
    EXPECT_EQ(mistake(R"({"a":null})", [](CJsonFields& fields) { EXPECT_EQ(fields.neededNumber("a", 4, 5), 4); }),
              "\"a\" is missing");
    EXPECT_EQ(mistake(R"({"a":7})", [](CJsonFields& fields) { EXPECT_EQ(fields.neededNumber("a", 4, 5), 4); }),
              "\"a\" must be a whole number from 4 to 5");
}

TEST(JsonFields, TheFirstMistakeCounts)
{
    EXPECT_EQ(mistake(R"({"a":1,"b":2})",
                      [](CJsonFields& fields) {
                          fields.fail("one");
                          fields.fail("two");
                          fields.text("a");
                      }),
              "one");
}
} // namespace
