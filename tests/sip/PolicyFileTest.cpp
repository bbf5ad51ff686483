// The policy file, and how mistakes in it are named.
#include "PolicyFile.h"

#include <gmock/gmock.h>

using testing::StartsWith;

namespace
{
std::string mistake(const std::string& strText)
{
    CPolicy policy;
    std::string strError;
    EXPECT_FALSE(readPolicyText(strText, "sip.toml", policy, strError)) << strText;
    return strError;
}
} // namespace

TEST(PolicyFile, WholeOneIsTaken)
{
    CPolicy policy;
    std::string strError;
    ASSERT_TRUE(readPolicyText(R"(
node = "west"
allow = ["192.0.2.0/24"]
[media]
codecs = ["PCMA", "opus"]
codec_order = "ours"
srtp = "required"
[limits]
calls = 10
dials_per_second = 0.5
[[trunk]]
name = "provider"
proxy = "sip:198.51.100.1"
addresses = ["198.51.100.0/28"]
user = "u"
password = "p"
[[route]]
number = "1??"
trunk = "provider"
to = "menu"
[[dial]]
to = "sip:+49*"
trunk = "provider"
)",
                               "sip.toml", policy, strError))
        << strError;
    EXPECT_EQ(policy.m_strNode, "west");
    EXPECT_TRUE(policy.allows("192.0.2.7"));
    EXPECT_TRUE(policy.allows("198.51.100.3"));
    EXPECT_FALSE(policy.allows("198.51.100.77"));
    EXPECT_EQ(policy.m_negotiation.m_vCodecs.front().m_strName, "PCMA");
    EXPECT_FALSE(policy.m_negotiation.m_bPeersOrder);
    EXPECT_EQ(policy.m_nMaxCalls, 10U);
    EXPECT_EQ(policy.routeOf("123", "198.51.100.3"), "menu");
    EXPECT_EQ(policy.routeOf("123", "192.0.2.7"), "");
    ASSERT_TRUE(policy.dialRule("sip:+4930@example.com"));
    EXPECT_EQ(policy.dialRule("sip:+4930@example.com")->m_strTrunk, "provider");
    EXPECT_FALSE(policy.dialRule("sip:+1900@example.com"));
}

TEST(PolicyFile, MistakesAreNamedByLineAndKey)
{
    EXPECT_THAT(mistake("node = 1"), StartsWith("sip.toml:1: node: "));
    EXPECT_THAT(mistake("\nnode = \"much-too-long\""), StartsWith("sip.toml:2: node: "));
    EXPECT_THAT(mistake("allow = [\n\"10.0.0.0/8\",\n\"10.0.0.0/99\"]"), StartsWith("sip.toml:3: allow: "));
    EXPECT_THAT(mistake("\n\nspeed = 1"), StartsWith("sip.toml:3: speed: is unknown"));
    EXPECT_THAT(mistake("[limits]\ncalls = 0"), StartsWith("sip.toml:2: limits.calls: "));
    EXPECT_THAT(mistake("[limits]\ndials_per_second = -1"), StartsWith("sip.toml:2: limits.dials_per_second: "));
    EXPECT_THAT(mistake("[media]\ncodecs = [\"GSM\"]"), StartsWith("sip.toml:2: media.codecs: "));
    EXPECT_THAT(mistake("[media]\nsrtp = \"maybe\""), StartsWith("sip.toml:2: media.srtp: "));
    EXPECT_THAT(mistake("[[trunk]]\nproxy = \"sip:a\""), StartsWith("sip.toml:1: trunk.name: is needed"));
    EXPECT_THAT(mistake("[[trunk]]\nname = \"a\"\nproxy = \"http:a\""), StartsWith("sip.toml:3: trunk.proxy: "));
    EXPECT_THAT(mistake("[[trunk]]\nname = \"a\"\n[[trunk]]\nname = \"a\""), StartsWith("sip.toml:4: trunk.name: "));
    EXPECT_THAT(mistake("[[route]]\nnumber = \"1\"\nto = \"x\"\ntrunk = \"b\""),
                StartsWith("sip.toml:4: route.trunk: "));
    EXPECT_THAT(mistake("[[dial]]\nto = \"*\"\ntrunk = \"b\""), StartsWith("sip.toml:3: dial.trunk: "));
    EXPECT_THAT(mistake("a = ["), StartsWith("sip.toml:1: "));
}

TEST(PolicyFile, FileThatIsNotThereIsTold)
{
    CPolicy policy;
    std::string strError;
    EXPECT_FALSE(readPolicyFile("/tmp/nothing.toml", policy, strError));
    EXPECT_THAT(strError, testing::HasSubstr("/tmp/nothing.toml"));
}
