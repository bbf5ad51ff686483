// Offer and answer.
#include "Negotiation.h"

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::Not;

namespace
{
CNegotiationSettings settings()
{
    CNegotiationSettings settings;
    settings.m_vCodecs = {{"PCMU", 0, 8000, "", ""}, {"PCMA", 8, 8000, "", ""}};
    return settings;
}

CNegotiation ours(CNegotiationSettings with = settings())
{
    CNegotiation negotiation(std::move(with));
    negotiation.setLocal("192.0.2.1", 20000, 20001);
    return negotiation;
}

std::string sdp(const std::string& strMedia, const std::string& strAddress = "192.0.2.9")
{
    return "v=0\r\no=- 1 1 IN IP4 192.0.2.9\r\ns=-\r\nc=IN IP4 " + strAddress + "\r\nt=0 0\r\n" + strMedia;
}

const std::string s_strPlain = "m=audio 4000 RTP/AVP 8 0 101\r\na=rtpmap:101 telephone-event/8000\r\n";
const std::string s_strKey = "MTIzNDU2Nzg5MDEyMzQ1Njc4OTAxMjM0NTY3ODkw";

std::string answerTo(CNegotiation& negotiation, const std::string& strOffer)
{
    std::string strError;
    const auto strAnswer = negotiation.answerOffer(strOffer, strError);
    return strAnswer ? *strAnswer : "refused: " + strError;
}
} // namespace

TEST(Negotiation, PeersOrderDecidesUnlessOursIsToDecide)
{
    CNegotiation theirs = ours();
    EXPECT_THAT(answerTo(theirs, sdp(s_strPlain)), HasSubstr("m=audio 20000 RTP/AVP 8 0 101"));
    EXPECT_EQ(theirs.media().m_send.m_strName, "PCMA");
    CNegotiationSettings with = settings();
    with.m_bPeersOrder = false;
    CNegotiation mine = ours(with);
    EXPECT_THAT(answerTo(mine, sdp(s_strPlain)), HasSubstr("m=audio 20000 RTP/AVP 0 8 101"));
    EXPECT_EQ(mine.media().m_send.m_strName, "PCMU");
}

TEST(Negotiation, NumbersAreThoseOfTheOffer)
{
    CNegotiation negotiation = ours();
    EXPECT_THAT(answerTo(negotiation, sdp("m=audio 4000 RTP/AVP 97 98\r\na=rtpmap:97 PCMA/8000\r\na=rtpmap:98 "
                                          "telephone-event/8000\r\n")),
                HasSubstr("a=rtpmap:97 PCMA/8000"));
    EXPECT_EQ(negotiation.media().m_send.m_uPayload, 97U);
    EXPECT_EQ(negotiation.media().m_uSendDigits, 98U);
}

TEST(Negotiation, DirectionIsTheOtherSideOfTheOffers)
{
    const std::pair<const char*, EDirection> cases[] = {{"sendrecv", EDirection::SendReceive},
                                                        {"sendonly", EDirection::ReceiveOnly},
                                                        {"recvonly", EDirection::SendOnly},
                                                        {"inactive", EDirection::Inactive}};
    for (const auto& [pOffered, eExpected] : cases)
    {
        CNegotiation negotiation = ours();
        answerTo(negotiation, sdp(s_strPlain + "a=" + pOffered + "\r\n"));
        EXPECT_EQ(negotiation.media().m_eDirection, eExpected) << pOffered;
        EXPECT_EQ(negotiation.isHeldByPeer(),
                  (static_cast<unsigned>(eExpected) & 1U) == 0 || eExpected == EDirection::Inactive)
            << pOffered;
    }
}

TEST(Negotiation, AddressOfNowhereIsHold)
{
    CNegotiation negotiation = ours();
    answerTo(negotiation, sdp(s_strPlain, "0.0.0.0"));
    EXPECT_TRUE(negotiation.isHeldByPeer());
    EXPECT_TRUE(negotiation.media().m_strRemote.empty());
    answerTo(negotiation, sdp(s_strPlain));
    EXPECT_FALSE(negotiation.isHeldByPeer());
    EXPECT_EQ(negotiation.media().m_strRemote, "192.0.2.9:4000");
}

TEST(Negotiation, OtherMediaAreRefusedInTheirPlaces)
{
    CNegotiation negotiation = ours();
    const std::string strAnswer =
        answerTo(negotiation, sdp("m=video 5000 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n" + s_strPlain));
    EXPECT_THAT(strAnswer, HasSubstr("m=video 0 RTP/AVP 96"));
    EXPECT_LT(strAnswer.find("m=video"), strAnswer.find("m=audio 20000"));
    EXPECT_THAT(negotiation.makeOffer(), HasSubstr("m=video 0 RTP/AVP 96"));
}

TEST(Negotiation, WhatCannotBeUsedIsRefused)
{
    for (const char* pOffer :
         {"", "no session", "m=video 4000 RTP/AVP 96\r\n", "m=audio 0 RTP/AVP 0\r\n", "m=audio 4000 RTP/AVP 3\r\n",
          "m=audio 4000 RTP/AVP 101\r\na=rtpmap:101 telephone-event/8000\r\n", "m=audio 4000 RTP/SAVP 0\r\n",
          "m=audio 4000 TCP/TLS 0\r\n"})
    {
        CNegotiation negotiation = ours();
        EXPECT_THAT(answerTo(negotiation, *pOffer == 'm' ? sdp(pOffer) : pOffer), HasSubstr("refused")) << pOffer;
        EXPECT_FALSE(negotiation.isAgreed());
    }
}

TEST(Negotiation, VersionChangesWithTheDescriptionOnly)
{
    CNegotiation negotiation = ours();
    const std::string strFirst = answerTo(negotiation, sdp(s_strPlain));
    EXPECT_EQ(answerTo(negotiation, sdp(s_strPlain)), strFirst);
    EXPECT_NE(answerTo(negotiation, sdp(s_strPlain + "a=sendonly\r\n")), strFirst);
}

TEST(Negotiation, AnswerToOurOfferTellsWhatIsSent)
{
    CNegotiation negotiation = ours();
    EXPECT_THAT(negotiation.makeOffer(), HasSubstr("m=audio 20000 RTP/AVP 0 8 101"));
    std::string strError;
    ASSERT_TRUE(negotiation.takeAnswer(sdp("m=audio 4000 RTP/AVP 8 101\r\na=rtpmap:101 telephone-event/8000\r\n"),
                                       false, strError));
    EXPECT_EQ(negotiation.media().m_send.m_strName, "PCMA");
    EXPECT_EQ(negotiation.media().m_uSendDigits, 101U);
    EXPECT_FALSE(negotiation.takeAnswer(sdp(s_strPlain), false, strError)) << "nothing was offered";
}

TEST(Negotiation, ProvisionalAnswerMayBeFollowedByAnother)
{
    CNegotiation negotiation = ours();
    negotiation.makeOffer();
    std::string strError;
    EXPECT_TRUE(negotiation.takeAnswer(sdp("m=audio 4000 RTP/AVP 8\r\n"), true, strError));
    EXPECT_TRUE(negotiation.takeAnswer(sdp("m=audio 5000 RTP/AVP 0\r\n"), false, strError));
    EXPECT_EQ(negotiation.media().m_strRemote, "192.0.2.9:5000");
}

TEST(Negotiation, HoldIsOfferedAndTakenBack)
{
    CNegotiation negotiation = ours();
    answerTo(negotiation, sdp(s_strPlain));
    negotiation.setHold(true);
    EXPECT_THAT(negotiation.makeOffer(), HasSubstr("a=sendonly"));
    std::string strError;
    ASSERT_TRUE(negotiation.takeAnswer(sdp(s_strPlain + "a=recvonly\r\n"), false, strError));
    EXPECT_EQ(negotiation.media().m_eDirection, EDirection::SendOnly);
    EXPECT_FALSE(negotiation.isHeldByPeer());
    negotiation.setHold(false);
    EXPECT_THAT(negotiation.makeOffer(), HasSubstr("a=sendrecv"));
}

TEST(Negotiation, KeysAreExchangedWhereThePeerOffersThem)
{
    CNegotiation negotiation = ours();
    const std::string strAnswer = answerTo(
        negotiation, sdp("m=audio 4000 RTP/SAVP 0\r\na=crypto:3 AES_CM_128_HMAC_SHA1_80 inline:" + s_strKey + "\r\n"));
    EXPECT_THAT(strAnswer, HasSubstr("RTP/SAVP"));
    EXPECT_THAT(strAnswer, HasSubstr("a=crypto:3 AES_CM_128_HMAC_SHA1_80 inline:"));
    ASSERT_TRUE(negotiation.media().m_keys);
    EXPECT_EQ(negotiation.media().m_keys->m_strReceive, s_strKey);
    EXPECT_EQ(negotiation.media().m_keys->m_strSend.size(), 40U);
    EXPECT_NE(negotiation.media().m_keys->m_strSend, s_strKey);
}

TEST(Negotiation, RequiredEncryptionIsInsistedOn)
{
    CNegotiationSettings with = settings();
    with.m_eSrtp = ESrtp::Required;
    CNegotiation negotiation = ours(with);
    EXPECT_THAT(answerTo(negotiation, sdp(s_strPlain)), HasSubstr("refused"));
    EXPECT_THAT(negotiation.makeOffer(), HasSubstr("RTP/SAVP"));
    std::string strError;
    EXPECT_FALSE(negotiation.takeAnswer(sdp("m=audio 4000 RTP/AVP 0\r\n"), false, strError));
}

TEST(Negotiation, RtcpMuxIsAgreedOnWhenBothHaveIt)
{
    CNegotiation negotiation = ours();
    EXPECT_THAT(answerTo(negotiation, sdp(s_strPlain)), Not(HasSubstr("rtcp-mux")));
    EXPECT_THAT(answerTo(negotiation, sdp(s_strPlain + "a=rtcp-mux\r\n")), HasSubstr("a=rtcp-mux"));
    EXPECT_TRUE(negotiation.media().m_bRtcpMux);
}

TEST(Negotiation, PacketTimeIsThePeersWithinReason)
{
    CNegotiation negotiation = ours();
    answerTo(negotiation, sdp(s_strPlain + "a=ptime:30\r\n"));
    EXPECT_EQ(negotiation.media().m_uPtime, 30U);
    answerTo(negotiation, sdp(s_strPlain + "a=ptime:4711\r\n"));
    EXPECT_EQ(negotiation.media().m_uPtime, 20U);
}
