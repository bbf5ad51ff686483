// Tests of the exception of a set-up step that failed.
#include "OrvException.h"

#include <gtest/gtest.h>
#include <string>

TEST(OrvExceptionTest, CarriesCodeAndLocation)
{
    const OrvException exception(OrvException::OUT_OF_MEMORY, "Library/File.cpp", 2556);
    EXPECT_EQ(exception.code(), 0x8007000Eu);
    EXPECT_STREQ(exception.location(), "Library/File.cpp.2556");
    EXPECT_STREQ(exception.what(), exception.location());
}

TEST(OrvExceptionTest, IsCaughtAsStandardException)
{
    try
    {
        throw OrvException(1, "file", 2);
    }
    catch (const std::exception& exception)
    {
        EXPECT_STREQ(exception.what(), "file.2");
    }
}

TEST(OrvExceptionTest, LocationIsCutAt270Characters)
{
    const std::string strFile(268, 'f');
    EXPECT_EQ(OrvException(1, strFile.c_str(), 7).location(), strFile + ".7");
    EXPECT_EQ(OrvException(1, strFile.c_str(), 78).location(), strFile + ".7");
    EXPECT_EQ(OrvException(1, std::string(1000, 'f').c_str(), 7).location(), std::string(270, 'f'));
}
