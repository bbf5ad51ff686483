// An IP address and port in numbers.
#include "NetAddress.h"

#include <gtest/gtest.h>

TEST(NetAddress, IsTheTextThatItWasMadeFrom)
{
    for (const std::string strText :
         {"127.0.0.1:40000", "0.0.0.0:1", "255.255.255.255:65535", "[::1]:40000", "[2001:db8::1]:0", "[::]:9"})
    {
        const std::optional<CNetAddress> address = CNetAddress::parse(strText);
        ASSERT_TRUE(address) << strText;
        EXPECT_EQ(address->text(), strText);
    }
}

TEST(NetAddress, IsNothingButAnAddressAndAPort)
{
    for (const std::string strText : {"",
                                      ":",
                                      ":1",
                                      "127.0.0.1",
                                      "127.0.0.1:",
                                      "127.0.0.1:65536",
                                      "127.0.0.1:-1",
                                      "127.0.0.1:+1",
                                      "127.0.0.1: 1",
                                      "127.0.0.1:1 ",
                                      "127.0.0.1:x",
                                      "127.0.0.1:1x",
                                      "localhost:1",
                                      "127.0.1:1",
                                      "127.0.0.256:1",
                                      "::1:1",
                                      "[::1]",
                                      "[::1]:",
                                      "[::1:1",
                                      "::1]:1",
                                      "[127.0.0.1]:1",
                                      "[]:1",
                                      "[:1",
                                      "[fe80::1%lo]:1",
                                      "[::g]:1"})
        EXPECT_FALSE(CNetAddress::parse(strText)) << strText;
    EXPECT_FALSE(CNetAddress::parse(std::string("127.0.0.1\0.5:1", 14)));
}

TEST(NetAddress, DiffersByHostPortAndFamily)
{
    const CNetAddress address = CNetAddress::parse("127.0.0.1:40000").value();
    EXPECT_EQ(address, CNetAddress::parse("127.0.0.1:40000").value());
    EXPECT_EQ(address.hash(), CNetAddress::parse("127.0.0.1:40000").value().hash());
    for (const char* pOther : {"127.0.0.1:40001", "127.0.0.2:40000", "[::1]:40000", "[::ffff:127.0.0.1]:40000"})
        EXPECT_FALSE(address == CNetAddress::parse(pOther).value()) << pOther;
    EXPECT_FALSE(CNetAddress::parse("[::1]:1").value() == CNetAddress::parse("[::2]:1").value());
    EXPECT_FALSE(CNetAddress::parse("[::1]:1").value() == CNetAddress::parse("[::1]:2").value());
    EXPECT_EQ(CNetAddress::parse("[::1]:1").value(), CNetAddress::parse("[0:0::1]:1").value());
}

TEST(NetAddress, ChangesItsPortOnly)
{
    EXPECT_EQ(CNetAddress::parse("127.0.0.1:1").value().withPort(513).text(), "127.0.0.1:513");
    EXPECT_EQ(CNetAddress::parse("[::1]:1").value().withPort(513).text(), "[::1]:513");
    EXPECT_EQ(CNetAddress::parse("[::1]:513").value().port(), 513);
}

TEST(NetAddress, IsNoneUntilAssigned)
{
    EXPECT_EQ(CNetAddress().text(), "no address");
    EXPECT_EQ(CNetAddress(), CNetAddress());
}
