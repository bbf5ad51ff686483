// Networks: what is one, and what is in it.
#include "AddressList.h"
#include "Policy.h"

#include <gtest/gtest.h>

namespace
{
CAddressList listOf(const std::string& strNetwork)
{
    CAddressList list;
    std::string strError;
    EXPECT_TRUE(list.add(strNetwork, strError)) << strError;
    return list;
}
} // namespace

TEST(AddressList, NetworkHasItsAddressesAndNoOthers)
{
    EXPECT_TRUE(listOf("192.0.2.0/25").contains("192.0.2.127"));
    EXPECT_FALSE(listOf("192.0.2.0/25").contains("192.0.2.128"));
    EXPECT_TRUE(listOf("192.0.2.7").contains("192.0.2.7"));
    EXPECT_FALSE(listOf("192.0.2.7").contains("192.0.2.6"));
    EXPECT_TRUE(listOf("2001:db8::/33").contains("2001:db8:7fff::1"));
    EXPECT_FALSE(listOf("2001:db8::/33").contains("2001:db8:8000::1"));
    EXPECT_TRUE(listOf("0.0.0.0/0").contains("203.0.113.9"));
    EXPECT_FALSE(listOf("0.0.0.0/0").contains("::1"));
}

TEST(AddressList, WhatIsNoNetworkIsRefused)
{
    CAddressList list;
    for (const char* pNetwork :
         {"", "192.0.2.0/33", "192.0.2.0/", "192.0.2.0/8x", "::/129", "example.com", "192.0.2/24"})
    {
        std::string strError;
        EXPECT_FALSE(list.add(pNetwork, strError)) << pNetwork;
        EXPECT_FALSE(strError.empty());
    }
    EXPECT_FALSE(list.contains("example.com"));
}

TEST(AddressList, ThisMachineIsInItsOwnList)
{
    EXPECT_TRUE(CAddressList::ofThisMachine().contains("127.0.0.1"));
    EXPECT_FALSE(CAddressList::ofThisMachine().contains("192.0.2.1"));
}

TEST(Patterns, StarStandsForAnythingAndQuestionMarkForOne)
{
    EXPECT_TRUE(matches("*", ""));
    EXPECT_TRUE(matches("+49*", "+4930"));
    EXPECT_FALSE(matches("+49*", "+4"));
    EXPECT_TRUE(matches("sip:1??@*.example.com", "sip:123@a.b.example.com"));
    EXPECT_FALSE(matches("1?", "1"));
    EXPECT_TRUE(matches("*a*b", "xxaxxbxb"));
    EXPECT_FALSE(matches("*a*b", "xxaxx"));
}
