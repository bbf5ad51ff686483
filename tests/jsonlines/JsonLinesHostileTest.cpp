// Peers that send what is no request, in any pieces, and peers that do not read.
#include "JsonLinesFixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{
const std::string REQUEST = "{\"request\":\"a\"}\n";

class JsonLinesHostile : public JsonLines
{
protected:
    JsonLinesHostile() { open(); }

    // A refusal that leaves the connection as it was.
    void expectRefused(const std::string& strLine, const std::string& strText)
    {
        CRawPeer peer;
        peer.send(strLine + '\n' + REQUEST);
        ASSERT_TRUE(turn());
        const auto vLines = peer.lines();
        ASSERT_THAT(vLines, SizeIs(2)) << quotedText(strLine);
        EXPECT_THAT(vLines[0], HasSubstr(R"("ok":false,"error":{"code":"bad-request",)"));
        EXPECT_THAT(vLines[0], HasSubstr(strText));
        EXPECT_EQ(vLines[1], R"({"ok":true,"echo":{}})");
    }
};

TEST_F(JsonLinesHostile, WhatIsNoObjectIsRefused)
{
    for (const char* pLine :
         {"", " ", "[]", "7", "null", "\"request\"", "{", "{}{}", "{\"request\":\"a\"", "\xEF\xBB\xBF"})
        expectRefused(pLine, "one object of JSON");
    expectRefused(std::string("{\"request\":\"a\0\"}", 15), "one object of JSON");
}

TEST_F(JsonLinesHostile, InvalidUtf8IsRefused)
{
    expectRefused("{\"request\":\"\xFF\"}", "UTF-8");
    expectRefused("{\"request\":\"\xC0\xAF\"}", "UTF-8");
    expectRefused("{\"request\":\"\xED\xA0\x80\"}", "UTF-8");
    expectRefused("{\"request\":\"\\ud800\"}", "UTF-8");
}

TEST_F(JsonLinesHostile, WhatIsNoRequestIsRefused)
{
    expectRefused("{}", "\\\"request\\\" is missing");
    expectRefused("{\"request\":7}", "\\\"request\\\" is missing or no text");
    expectRefused("{\"id\":-1,\"request\":\"a\"}", "\\\"id\\\" must be");
    expectRefused("{\"id\":1.5,\"request\":\"a\"}", "\\\"id\\\" must be");
    expectRefused("{\"id\":\"1\",\"request\":\"a\"}", "\\\"id\\\" must be");
    expectRefused("{\"id\":null,\"request\":\"a\"}", "\\\"id\\\" must be");
    expectRefused("{\"id\":99999999999999999999999,\"request\":\"a\"}", "\\\"id\\\" must be");
}

TEST_F(JsonLinesHostile, DeepNestingIsRefused)
{
    expectRefused("{\"a\":" + std::string(60000, '['), "levels");
    expectRefused("{\"a\":" + std::string(16, '[') + std::string(16, ']') + "}", "levels");
    CRawPeer peer;
    peer.send("{\"request\":\"a\",\"b\":" + std::string(15, '[') + "\"[[\\\"[[\"" + std::string(15, ']') + "}\n");
    ASSERT_TRUE(turn());
    EXPECT_THAT(peer.line(), HasSubstr("\"ok\":true"));
}

TEST_F(JsonLinesHostile, LinesMayComeByteByByte)
{
    CRawPeer peer;
    for (const char c : REQUEST + REQUEST)
    {
        peer.send(std::string(1, c));
        ASSERT_TRUE(turn());
    }
    EXPECT_THAT(peer.lines(), SizeIs(2));
}

TEST_F(JsonLinesHostile, TheLongestLineIsTakenAndALongerOneEndsTheConnection)
{
    CRawPeer peer;
    const std::string strBegin = "{\"request\":\"";
    const std::string strLongest = strBegin + std::string(65536 - strBegin.size() - 2, 'x') + "\"}";
    ASSERT_EQ(peer.send(strLongest + '\n'), strLongest.size() + 1);
    ASSERT_TRUE(turn());
    EXPECT_THAT(peer.line(), HasSubstr("\"ok\":true"));
    ASSERT_EQ(peer.send(strLongest + " \n" + REQUEST), strLongest.size() + 2 + REQUEST.size());
    ASSERT_TRUE(turn());
    EXPECT_THAT(peer.line(), HasSubstr("a line has at most 65536 bytes"));
    EXPECT_TRUE(peer.hasEnded());
    EXPECT_THAT(m_handler.m_vRequests, SizeIs(1));
    EXPECT_THAT(m_handler.m_vDisconnected, SizeIs(1));
}

TEST_F(JsonLinesHostile, ALineWithoutEndIsNotKept)
{
    CRawPeer peer;
    for (int n = 0; n < 100 && peer.send(std::string(10000, 'x')) > 0; ++n)
        ASSERT_TRUE(turn());
    EXPECT_THAT(peer.line(), HasSubstr("a line has at most"));
    EXPECT_TRUE(peer.hasEnded());
}

TEST_F(JsonLinesHostile, HalfALineAtTheEndIsNoRequest)
{
    CRawPeer peer;
    peer.send(REQUEST + "{\"request\":\"b\"}");
    peer.endSending();
    ASSERT_TRUE(turn());
    EXPECT_THAT(peer.lines(), SizeIs(1));
    EXPECT_TRUE(peer.hasEnded());
    EXPECT_THAT(m_handler.m_vRequests, SizeIs(1));
}

TEST_F(JsonLinesHostile, WhoDoesNotTakeAnswersIsNotReadAnyMoreButServedAgainLater)
{
    CRawPeer peer;
    const std::string strRequest =
        "{\"request\":\"" + std::string(30000, 'x') + "\",\"b\":\"" + std::string(30000, 'y') + "\"}\n";
    size_t nSent = 0;
    std::string strRest;
    for (int n = 0; n < 200; ++n)
    {
        strRest += strRest.empty() ? strRequest : "";
        strRest.erase(0, peer.send(strRest));
        nSent += strRest.empty() ? 1 : 0;
        ASSERT_TRUE(turn());
    }
    EXPECT_LT(m_handler.m_vRequests.size(), 100U);
    EXPECT_THAT(m_vLog, IsEmpty());
    EXPECT_THAT(m_handler.m_vDisconnected, IsEmpty());
    size_t nAnswers = 0;
    for (int n = 0; n < 1000 && nAnswers < nSent; ++n)
    {
        nAnswers += peer.lines().size();
        nSent += strRest.empty() ? 0 : peer.send(strRest) == strRest.size() ? 1 : 0;
        strRest.clear();
        ASSERT_TRUE(turn());
    }
    EXPECT_EQ(nAnswers, nSent);
}

TEST_F(JsonLinesHostile, WhoDoesNotTakeEventsIsDroppedWithALogLine)
{
    CRawPeer slow;
    CRawPeer other;
    ASSERT_TRUE(turn());
    const std::string strEvent = jsonLine(nlohmann::json{{"event", std::string(10000, 'x')}});
    int nSent = 0;
    while (m_pServer->sendLine(1, strEvent) && nSent < 1000)
        ++nSent;
    EXPECT_GT(nSent, 100);
    EXPECT_LT(nSent, 1000);
    EXPECT_FALSE(m_pServer->sendLine(1, strEvent));
    ASSERT_TRUE(turn());
    EXPECT_THAT(m_vLog, ElementsAre(HasSubstr("too slow")));
    EXPECT_THAT(m_handler.m_vDisconnected, ElementsAre(testing::Pair(1, "it was too slow")));
    other.send(REQUEST);
    ASSERT_TRUE(turn());
    EXPECT_THAT(other.lines(), SizeIs(1));
}

TEST_F(JsonLinesHostile, WhoGoesWithoutTakingTheAnswersIsForgotten)
{
    m_handler.m_onRequest = [](auto, const auto&) {};
    CRawPeer peer;
    peer.send("{\"id\":1,\"request\":\"a\"}\n");
    ASSERT_TRUE(turn());
    peer.close();
    ASSERT_TRUE(turn());
    EXPECT_THAT(m_handler.m_vDisconnected, SizeIs(1));
    EXPECT_FALSE(m_pServer->answer(1, 1));
}

TEST_F(JsonLinesHostile, AnAnswerLongerThanWhatMayWaitIsStillSent)
{
    const std::string strLong(3U << 20U, 'x');
    m_handler.m_onRequest = [&](auto nConnection, const auto& request) {
        m_pServer->answer(nConnection, request.m_nID, {{"list", strLong}});
    };
    CRawPeer peer;
    peer.send(REQUEST);
    size_t nBytes = 0;
    for (int n = 0; n < 1000 && nBytes == 0; ++n)
    {
        ASSERT_TRUE(turn());
        for (const std::string& strLine : peer.lines())
            nBytes = strLine.size();
    }
    EXPECT_GT(nBytes, strLong.size());
    EXPECT_THAT(m_vLog, IsEmpty());
}
} // namespace
