// Sockets in the file system: what may be in the place of a new one, and what is left of it.
#include "JsonSocket.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <memory>

using testing::HasSubstr;

namespace
{
const std::string PATH = "/tmp/json-socket-test.sock";

class JsonSocket : public testing::Test
{
protected:
    bool open(CListeningSocket& socket, mode_t nMode = 0660) { return socket.open(PATH, nMode, m_strError); }

    std::string m_strError;
};

TEST_F(JsonSocket, TheFileHasItsModeAndGoesWithTheSocket)
{
    {
        CListeningSocket socket;
        const mode_t nUmask = ::umask(0077);
        ASSERT_TRUE(open(socket)) << m_strError;
        EXPECT_EQ(::umask(nUmask), 0077U);
        EXPECT_EQ(std::filesystem::status(PATH).permissions(), std::filesystem::perms(0660));
        EXPECT_TRUE(connectTo(PATH, m_strError).isOpen());
    }
    EXPECT_FALSE(std::filesystem::exists(PATH));
    EXPECT_FALSE(connectTo(PATH, m_strError).isOpen());
}

TEST_F(JsonSocket, OneThatNobodyListensToIsReplaced)
{
    auto pKilled = std::make_unique<CListeningSocket>();
    ASSERT_TRUE(open(*pKilled));
    std::filesystem::rename(PATH, PATH + ".left");
    pKilled.reset();
    std::filesystem::rename(PATH + ".left", PATH);
    CListeningSocket socket;
    EXPECT_TRUE(open(socket)) << m_strError;
}

TEST_F(JsonSocket, OneThatIsInUseStays)
{
    CListeningSocket first;
    ASSERT_TRUE(open(first));
    CListeningSocket second;
    EXPECT_FALSE(open(second));
    EXPECT_THAT(m_strError, HasSubstr("another program listens"));
    EXPECT_TRUE(connectTo(PATH, m_strError).isOpen());
}

TEST_F(JsonSocket, AFileOfAnotherKindStays)
{
    std::ofstream(PATH) << "precious";
    {
        CListeningSocket socket;
        EXPECT_FALSE(open(socket));
        EXPECT_THAT(m_strError, HasSubstr("not a socket"));
    }
    EXPECT_EQ(std::filesystem::file_size(PATH), 8U);
}

TEST_F(JsonSocket, AnotherOnesFileInItsPlaceStays)
{
    auto pFirst = std::make_unique<CListeningSocket>();
    ASSERT_TRUE(open(*pFirst));
    std::filesystem::remove(PATH);
    CListeningSocket second;
    ASSERT_TRUE(open(second));
    pFirst.reset();
    EXPECT_TRUE(connectTo(PATH, m_strError).isOpen());
}

TEST_F(JsonSocket, ImpossiblePathsAreRefused)
{
    for (const std::string& strPath : {std::string(), std::string(108, 'x'), std::string("/tmp/a\0b", 8)})
    {
        CListeningSocket socket;
        EXPECT_FALSE(socket.open(strPath, 0660, m_strError));
        EXPECT_THAT(m_strError, HasSubstr("cannot be the path of a socket"));
        EXPECT_FALSE(connectTo(strPath, m_strError).isOpen());
    }
    CListeningSocket socket;
    EXPECT_FALSE(socket.open("/tmp/no-such-folder/a", 0660, m_strError));
    EXPECT_THAT(m_strError, HasSubstr("No such file"));
}
} // namespace
