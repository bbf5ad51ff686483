// The client's end, against the server and against servers that misbehave.
#include "JsonLinesClient.h"

#include "JsonLinesFixture.h"

#include <thread>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{
class JsonLinesClient : public JsonLines
{
protected:
    void connect()
    {
        std::string strError;
        ASSERT_TRUE(m_client.connect(JSON_SOCKET_PATH, strError)) << strError;
    }
    // Both sides, until neither has anything to do.
    bool turnBoth()
    {
        for (int n = 0; n < 1000; ++n)
        {
            if (!turn())
                return false;
            pollfd wait = {m_client.descriptor(), static_cast<short>(m_client.wantedEvents()), 0};
            if (!m_client.isConnected() || ::poll(&wait, 1, 0) == 0)
                return true;
            m_client.onReady(m_message, m_strError);
        }
        return false;
    }

    CJsonLinesClient m_client;
    std::vector<nlohmann::json> m_vMessages;
    CJsonLinesClient::MessageFunction m_message = [this](const nlohmann::json& m) { m_vMessages.push_back(m); };
    std::string m_strError;
};

TEST_F(JsonLinesClient, RequestsAreNumberedFromOne)
{
    open();
    connect();
    EXPECT_EQ(m_client.request({{"request", "a"}}), 1U);
    EXPECT_EQ(m_client.request({{"request", "b"}, {"c", 2}}), 2U);
    ASSERT_TRUE(turnBoth());
    ASSERT_THAT(m_vMessages, SizeIs(2));
    EXPECT_EQ(m_vMessages[1].dump(), R"({"echo":{"c":2},"id":2,"ok":true})");
    connect();
    EXPECT_EQ(m_client.request({{"request", "a"}}), 1U);
}

TEST_F(JsonLinesClient, WithoutAServerThereIsNoConnection)
{
    EXPECT_FALSE(m_client.connect(JSON_SOCKET_PATH, m_strError));
    EXPECT_THAT(m_strError, HasSubstr("No such file"));
    EXPECT_FALSE(m_client.isConnected());
    EXPECT_EQ(m_client.request({{"request", "a"}}), 0U);
    EXPECT_EQ(m_client.descriptor(), -1);
    EXPECT_FALSE(m_client.onReady(m_message, m_strError));
}

TEST_F(JsonLinesClient, TheEndOfTheServerIsToldAfterWhatItSaid)
{
    open();
    connect();
    ASSERT_TRUE(turnBoth());
    m_pServer->send(1, {{"event", "last"}});
    m_pServer.reset();
    while (m_client.onReady(m_message, m_strError))
    {
    }
    EXPECT_THAT(m_vMessages, SizeIs(1));
    EXPECT_THAT(m_strError, HasSubstr("ended"));
    EXPECT_FALSE(m_client.isConnected());
}

TEST_F(JsonLinesClient, AMessageMayCloseTheConnection)
{
    open([](auto& settings) { settings.m_hello = {{"hello", "old"}}; });
    connect();
    m_message = [this](const nlohmann::json& message) {
        m_vMessages.push_back(message);
        m_client.close();
    };
    ASSERT_TRUE(turn());
    m_pServer->send(1, {{"event", "late"}});
    EXPECT_FALSE(m_client.onReady(m_message, m_strError));
    EXPECT_THAT(m_vMessages, SizeIs(1));
}

TEST_F(JsonLinesClient, AServerThatSendsNoJsonIsLeft)
{
    open();
    connect();
    ASSERT_TRUE(turnBoth());
    m_pServer->sendLine(1, "rubbish\n");
    EXPECT_FALSE(m_client.onReady(m_message, m_strError));
    EXPECT_THAT(m_strError, HasSubstr("one object of JSON"));
    EXPECT_FALSE(m_client.isConnected());
    EXPECT_THAT(m_vMessages, IsEmpty());
}

TEST_F(JsonLinesClient, AMegabyteGoesThroughInPieces)
{
    open([](auto& settings) { settings.m_nMaxLine = 1U << 21U; });
    connect();
    m_client.request({{"request", "a"}, {"text", std::string(1U << 20U, 'x')}});
    EXPECT_GT(m_client.waiting(), 0U);
    ASSERT_TRUE(turnBoth());
    EXPECT_EQ(m_client.waiting(), 0U);
    EXPECT_THAT(m_vMessages, SizeIs(1));
}

TEST_F(JsonLinesClient, AskPassesOverHelloAndEvents)
{
    open([](auto& settings) { settings.m_hello = {{"hello", "test"}}; });
    m_handler.m_onRequest = [this](auto nConnection, const auto& request) {
        m_pServer->send(nConnection, {{"event", "digit"}});
        m_pServer->answer(nConnection, request.m_nID, {{"n", 1}});
    };
    nlohmann::json answer;
    bool bAnswered = false;
    std::thread asking([&] {
        bAnswered =
            askJsonLines(JSON_SOCKET_PATH, {{"id", 9}, {"request", "a"}}, std::chrono::seconds(60), answer, m_strError);
    });
    while (m_handler.m_vDisconnected.empty())
    {
        pollfd wait = {m_pServer->descriptor(), POLLIN, 0};
        ASSERT_EQ(::poll(&wait, 1, 60000), 1);
        m_pServer->onReadable();
    }
    asking.join();
    EXPECT_TRUE(bAnswered) << m_strError;
    EXPECT_EQ(answer.dump(), R"({"id":9,"n":1,"ok":true})");
}

TEST_F(JsonLinesClient, AskGivesUp)
{
    nlohmann::json answer;
    EXPECT_FALSE(askJsonLines(JSON_SOCKET_PATH, {{"request", "a"}}, std::chrono::seconds(60), answer, m_strError));
    EXPECT_THAT(m_strError, HasSubstr("cannot connect"));
    open();
    EXPECT_FALSE(askJsonLines(JSON_SOCKET_PATH, {{"request", "a"}}, std::chrono::milliseconds(1), answer, m_strError));
    EXPECT_THAT(m_strError, HasSubstr("in time"));
}
} // namespace
