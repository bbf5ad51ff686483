// Owners that lose their connection and come back in time, or not.
#include "JsonOwners.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

namespace
{
class JsonOwners : public testing::Test
{
protected:
    std::optional<CJsonOwners::ConnectionID> attach(const std::string& strOwner, CJsonOwners::ConnectionID nConnection)
    {
        return m_owners.attach(strOwner, nConnection, m_bAttached);
    }

    const CJsonOwners::TimePoint m_now{1000s};
    CJsonOwners m_owners;
    bool m_bAttached = false;
};

TEST_F(JsonOwners, AreKnownByTheirConnection)
{
    EXPECT_FALSE(attach("a", 1));
    EXPECT_TRUE(m_bAttached);
    EXPECT_EQ(m_owners.ownerOf(1), "a");
    EXPECT_EQ(m_owners.connectionOf("a"), 1U);
    EXPECT_FALSE(m_owners.ownerOf(2));
    EXPECT_FALSE(m_owners.connectionOf("b"));
    EXPECT_FALSE(m_owners.nextExpiry());
}

TEST_F(JsonOwners, HaveTenSecondsToComeBack)
{
    attach("a", 1);
    m_owners.lost(1, m_now);
    EXPECT_FALSE(m_owners.ownerOf(1));
    EXPECT_FALSE(m_owners.connectionOf("a"));
    EXPECT_EQ(m_owners.nextExpiry(), m_now + 10s);
    EXPECT_THAT(m_owners.takeExpired(m_now + 9999ms), IsEmpty());
    EXPECT_THAT(m_owners.takeExpired(m_now + 10s), ElementsAre("a"));
    EXPECT_THAT(m_owners.takeExpired(m_now + 11s), IsEmpty());
}

TEST_F(JsonOwners, ThatComeBackDoNotExpire)
{
    attach("a", 1);
    m_owners.lost(1, m_now);
    EXPECT_FALSE(attach("a", 2));
    EXPECT_EQ(m_owners.connectionOf("a"), 2U);
    EXPECT_FALSE(m_owners.nextExpiry());
    EXPECT_THAT(m_owners.takeExpired(m_now + 1h), IsEmpty());
}

TEST_F(JsonOwners, ThatComeByAnotherConnectionTakeItOver)
{
    attach("a", 1);
    EXPECT_EQ(attach("a", 2), 1U);
    EXPECT_FALSE(m_owners.ownerOf(1));
    m_owners.lost(1, m_now);
    EXPECT_EQ(m_owners.connectionOf("a"), 2U);
    EXPECT_FALSE(m_owners.nextExpiry());
}

TEST_F(JsonOwners, ShareNoConnection)
{
    attach("a", 1);
    attach("a", 1);
    EXPECT_TRUE(m_bAttached);
    attach("b", 1);
    EXPECT_FALSE(m_bAttached);
    EXPECT_EQ(m_owners.ownerOf(1), "a");
    EXPECT_FALSE(m_owners.connectionOf("b"));
}

TEST_F(JsonOwners, ExpireEachInItsTime)
{
    attach("a", 1);
    attach("b", 2);
    m_owners.lost(2, m_now);
    m_owners.lost(1, m_now + 1s);
    m_owners.lost(7, m_now);
    EXPECT_EQ(m_owners.nextExpiry(), m_now + 10s);
    EXPECT_THAT(m_owners.takeExpired(m_now + 10s), ElementsAre("b"));
    EXPECT_EQ(m_owners.nextExpiry(), m_now + 11s);
}
} // namespace
