// The server's end: who may come, how requests are answered, how events and the end of connections are told.
#include "JsonLinesFixture.h"

#include <sys/resource.h>

#include <stdexcept>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

namespace
{
TEST_F(JsonLines, HelloComesFirst)
{
    open([](auto& settings) { settings.m_hello = {{"hello", "test"}, {"protocol", 1}}; });
    CRawPeer peer;
    ASSERT_TRUE(turn());
    EXPECT_EQ(peer.line(), R"({"hello":"test","protocol":1})");
}

TEST_F(JsonLines, RequestsAreAnsweredWithTheirID)
{
    open();
    CRawPeer peer;
    peer.send("{\"id\":7,\"request\":\"create\",\"call\":\"n1-1\",\"leg\":2}\n");
    ASSERT_TRUE(turn());
    EXPECT_EQ(peer.line(), R"({"id":7,"ok":true,"echo":{"call":"n1-1","leg":2}})");
    ASSERT_THAT(m_handler.m_vRequests, SizeIs(1));
    EXPECT_EQ(m_handler.m_vRequests[0].second.m_strName, "create");
}

TEST_F(JsonLines, RequestsWithoutIDAreAnsweredInTheirOrder)
{
    open();
    CRawPeer peer;
    peer.send("{\"request\":\"a\",\"n\":1}\n{\"request\":\"b\",\"n\":2}\n");
    ASSERT_TRUE(turn());
    EXPECT_THAT(peer.lines(), ElementsAre(R"({"ok":true,"echo":{"n":1}})", R"({"ok":true,"echo":{"n":2}})"));
}

TEST_F(JsonLines, AnswersMayComeLaterAndInAnyOrderButOnce)
{
    open();
    m_handler.m_onRequest = [](auto, const auto&) {};
    CRawPeer peer;
    peer.send("{\"id\":0,\"request\":\"a\"}\n{\"id\":5,\"request\":\"b\"}\n");
    ASSERT_TRUE(turn());
    EXPECT_THAT(peer.lines(), IsEmpty());
    EXPECT_TRUE(m_pServer->answer(1, 5, {{"n", 1}}));
    EXPECT_TRUE(m_pServer->refuse(1, 0, "full", "no room"));
    EXPECT_FALSE(m_pServer->answer(1, 5));
    EXPECT_FALSE(m_pServer->refuse(1, 6, "full", ""));
    EXPECT_FALSE(m_pServer->answer(1, std::nullopt));
    EXPECT_FALSE(m_pServer->answer(2, 5));
    EXPECT_THAT(peer.lines(), ElementsAre(R"({"id":5,"ok":true,"n":1})",
                                          R"({"id":0,"ok":false,"error":{"code":"full","text":"no room"}})"));
}

TEST_F(JsonLines, IDsMustAscend)
{
    open();
    CRawPeer peer;
    peer.send("{\"id\":3,\"request\":\"a\"}\n{\"id\":3,\"request\":\"a\"}\n{\"id\":2,\"request\":\"a\"}\n");
    ASSERT_TRUE(turn());
    const auto vLines = peer.lines();
    ASSERT_THAT(vLines, SizeIs(3));
    EXPECT_THAT(vLines[1], HasSubstr(R"({"id":3,"ok":false,"error":{"code":"bad-request")"));
    EXPECT_THAT(vLines[2], HasSubstr(R"({"id":2,"ok":false,"error":{"code":"bad-request")"));
    EXPECT_THAT(m_handler.m_vRequests, SizeIs(1));
}

TEST_F(JsonLines, ErrorsCanBePlainText)
{
    open([](auto& settings) { settings.m_bErrorIsText = true; });
    m_handler.m_onRequest = [this](auto nConnection, const auto& request) {
        m_pServer->refuse(nConnection, request.m_nID, "failed", "it is late");
    };
    CRawPeer peer;
    peer.send("{\"request\":\"a\"}\n");
    ASSERT_TRUE(turn());
    EXPECT_EQ(peer.line(), R"({"ok":false,"error":"it is late"})");
}

TEST_F(JsonLines, AnExceptionRefusesTheRequest)
{
    open();
    m_handler.m_onRequest = [](auto, const auto&) { throw std::runtime_error("no memory"); };
    CRawPeer peer;
    peer.send("{\"id\":1,\"request\":\"a\"}\n");
    ASSERT_TRUE(turn());
    EXPECT_EQ(peer.line(), R"({"id":1,"ok":false,"error":{"code":"failed","text":"no memory"}})");
    EXPECT_FALSE(peer.hasEnded());
}

TEST_F(JsonLines, EventsArePushedToOneConnection)
{
    open();
    CRawPeer one;
    CRawPeer other;
    ASSERT_TRUE(turn());
    EXPECT_TRUE(m_pServer->send(m_handler.m_vConnected.at(1), {{"event", "digit"}}));
    EXPECT_FALSE(m_pServer->send(99, {{"event", "digit"}}));
    EXPECT_THAT(one.lines(), IsEmpty());
    EXPECT_EQ(other.line(), R"({"event":"digit"})");
}

TEST_F(JsonLines, ManyRequestsInOneLumpAreAllAnswered)
{
    open();
    CRawPeer peer;
    std::string strLump;
    for (int n = 0; n < 1000; ++n)
        strLump += "{\"id\":" + std::to_string(n) + ",\"request\":\"a\"}\n";
    ASSERT_EQ(peer.send(strLump), strLump.size());
    size_t nAnswers = 0;
    for (int n = 0; n < 1000 && nAnswers < 1000; ++n)
    {
        ASSERT_TRUE(turn());
        nAnswers += peer.lines().size();
    }
    EXPECT_EQ(nAnswers, 1000U);
}

TEST_F(JsonLines, OneTurnTakesABoundedNumberOfRequests)
{
    open([](auto& settings) { settings.m_nRequestsPerTurn = 3; });
    CRawPeer peer;
    m_pServer->onReadable();
    peer.send("{\"request\":\"a\"}\n{\"request\":\"a\"}\n{\"request\":\"a\"}\n{\"request\":\"a\"}\n");
    m_pServer->onReadable();
    EXPECT_THAT(m_handler.m_vRequests, SizeIs(3));
    EXPECT_TRUE(isReadable(m_pServer->descriptor()));
    m_pServer->onReadable();
    EXPECT_THAT(m_handler.m_vRequests, SizeIs(4));
    EXPECT_FALSE(isReadable(m_pServer->descriptor()));
}

TEST_F(JsonLines, WithTooManyOutstandingTheNextOnesWait)
{
    open([](auto& settings) { settings.m_nMaxOutstanding = 2; });
    m_handler.m_onRequest = [](auto, const auto&) {};
    CRawPeer peer;
    peer.send("{\"id\":1,\"request\":\"a\"}\n{\"id\":2,\"request\":\"a\"}\n{\"id\":3,\"request\":\"a\"}\n");
    ASSERT_TRUE(turn());
    EXPECT_THAT(m_handler.m_vRequests, SizeIs(2));
    m_pServer->answer(1, 2);
    ASSERT_TRUE(turn());
    EXPECT_THAT(m_handler.m_vRequests, SizeIs(3));
}

TEST_F(JsonLines, TheEndOfAConnectionIsToldOnce)
{
    open();
    CRawPeer peer;
    ASSERT_TRUE(turn());
    peer.close();
    ASSERT_TRUE(turn());
    EXPECT_THAT(m_handler.m_vDisconnected, ElementsAre(Pair(1, testing::_)));
    EXPECT_EQ(m_pServer->connections(), 0U);
}

TEST_F(JsonLines, WhatWasSentBeforeTheEndIsStillTaken)
{
    open();
    CRawPeer peer;
    peer.send("{\"request\":\"die\"}\n");
    peer.close();
    ASSERT_TRUE(turn());
    EXPECT_THAT(m_handler.m_vRequests, SizeIs(1));
    EXPECT_THAT(m_handler.m_vDisconnected, SizeIs(1));
}

TEST_F(JsonLines, WhoSendsNoMoreStillGetsTheAnswers)
{
    open();
    m_handler.m_onRequest = [](auto, const auto&) {};
    CRawPeer peer;
    peer.send("{\"id\":1,\"request\":\"a\"}\n");
    peer.endSending();
    ASSERT_TRUE(turn());
    EXPECT_FALSE(peer.hasEnded());
    m_pServer->answer(1, 1);
    ASSERT_TRUE(turn());
    EXPECT_EQ(peer.line(), R"({"id":1,"ok":true})");
    EXPECT_TRUE(peer.hasEnded());
}

TEST_F(JsonLines, CloseSendsFirstAndReadsNoMore)
{
    open();
    m_handler.m_onRequest = [this](auto nConnection, const auto& request) {
        m_pServer->answer(nConnection, request.m_nID);
        m_pServer->close(nConnection, "enough");
        EXPECT_FALSE(m_pServer->send(nConnection, {{"event", "late"}}));
    };
    CRawPeer peer;
    peer.send("{\"id\":1,\"request\":\"a\"}\n{\"id\":2,\"request\":\"a\"}\n");
    ASSERT_TRUE(turn());
    EXPECT_EQ(peer.line(), R"({"id":1,"ok":true})");
    EXPECT_TRUE(peer.hasEnded());
    EXPECT_THAT(m_handler.m_vDisconnected, ElementsAre(Pair(1, "enough")));
}

TEST_F(JsonLines, DropOutOfTurnIsToldInTheNextOne)
{
    open();
    CRawPeer peer;
    ASSERT_TRUE(turn());
    m_pServer->drop(1, "no reason");
    m_pServer->drop(1, "twice");
    EXPECT_THAT(m_handler.m_vDisconnected, IsEmpty());
    EXPECT_FALSE(m_pServer->send(1, {{"event", "late"}}));
    EXPECT_TRUE(isReadable(m_pServer->descriptor()));
    ASSERT_TRUE(turn());
    EXPECT_THAT(m_handler.m_vDisconnected, ElementsAre(Pair(1, "no reason")));
    EXPECT_TRUE(peer.hasEnded());
}

TEST_F(JsonLines, TheHandlerMayDropOthersWhenOneEnds)
{
    open();
    CRawPeer one;
    CRawPeer other;
    ASSERT_TRUE(turn());
    m_handler.m_onDisconnected = [this](auto) { m_pServer->drop(2, "so does the other"); };
    m_pServer->drop(1, "one ends");
    ASSERT_TRUE(turn());
    EXPECT_THAT(m_handler.m_vDisconnected, ElementsAre(Pair(1, "one ends"), Pair(2, "so does the other")));
}

TEST_F(JsonLines, PeersAreKnownByTheirCredentials)
{
    open();
    CJsonPeer seen;
    m_handler.m_mayConnect = [&seen](const CJsonPeer& peer) {
        seen = peer;
        return false;
    };
    CRawPeer peer;
    ASSERT_TRUE(turn());
    EXPECT_EQ(seen.m_nProcessID, ::getpid());
    EXPECT_EQ(seen.m_nUser, ::geteuid());
    EXPECT_EQ(seen.m_nGroup, ::getegid());
    EXPECT_TRUE(peer.hasEnded());
    EXPECT_THAT(m_handler.m_vConnected, IsEmpty());
    EXPECT_THAT(m_vLog, ElementsAre(HasSubstr("turned away process " + std::to_string(::getpid()))));
}

TEST_F(JsonLines, WithoutRoomNewOnesAreTurnedAwayWithAWord)
{
    open([](auto& settings) { settings.m_nMaxConnections = 1; });
    CRawPeer first;
    CRawPeer second;
    ASSERT_TRUE(turn());
    EXPECT_THAT(second.line(), HasSubstr(R"({"ok":false,"error":{"code":"full")"));
    EXPECT_TRUE(second.hasEnded());
    EXPECT_FALSE(first.hasEnded());
}

TEST_F(JsonLines, WhereIdleOnesAreEvictedItIsTheOneThatIsQuietForLongest)
{
    open([](auto& settings) {
        settings.m_nMaxConnections = 2;
        settings.m_bEvictIdle = true;
    });
    CRawPeer first;
    CRawPeer second;
    ASSERT_TRUE(turn());
    first.send("{\"request\":\"a\"}\n");
    ASSERT_TRUE(turn());
    CRawPeer third;
    ASSERT_TRUE(turn());
    EXPECT_FALSE(first.hasEnded());
    EXPECT_TRUE(second.hasEnded());
    EXPECT_FALSE(third.hasEnded());
}

TEST_F(JsonLines, NobodyIsEvictedWithARequestOutstanding)
{
    open([](auto& settings) {
        settings.m_nMaxConnections = 1;
        settings.m_bEvictIdle = true;
    });
    m_handler.m_onRequest = [](auto, const auto&) {};
    CRawPeer first;
    first.send("{\"request\":\"a\"}\n");
    ASSERT_TRUE(turn());
    CRawPeer second;
    ASSERT_TRUE(turn());
    EXPECT_FALSE(first.hasEnded());
    EXPECT_THAT(second.line(), HasSubstr("\"full\""));
}

TEST_F(JsonLines, WithoutDescriptorsNewOnesAreTurnedAwayAndTheOthersServed)
{
    open();
    CRawPeer first;
    ASSERT_TRUE(turn());
    CRawPeer second;
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const CSocketFd fdLast(::dup(0));
    const rlimit none = {static_cast<rlim_t>(fdLast.get()), limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    const bool bQuiet = turn();
    ::setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_TRUE(bQuiet);
    EXPECT_TRUE(second.hasEnded());
    first.send("{\"request\":\"a\"}\n");
    ASSERT_TRUE(turn());
    EXPECT_EQ(first.line(), R"({"ok":true,"echo":{}})");
}
} // namespace
