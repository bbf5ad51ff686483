// A server of JSON lines that a test turns by hand, and peers that write and read whatever the test says.
#ifndef JSON_LINES_FIXTURE_H
#define JSON_LINES_FIXTURE_H

#include "JsonLinesServer.h"
#include "JsonText.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

inline const std::string JSON_SOCKET_PATH = "/tmp/json-lines-test.sock";

inline bool isReadable(int nFd)
{
    pollfd wait = {nFd, POLLIN, 0};
    return ::poll(&wait, 1, 0) > 0;
}

// Somebody who is connected; what has not come when it is looked for will not come.
class CRawPeer
{
public:
    CRawPeer()
    {
        std::string strError;
        m_fd = connectTo(JSON_SOCKET_PATH, strError);
        EXPECT_TRUE(m_fd.isOpen()) << strError;
    }

    // Returns how much of it found room.
    size_t send(const std::string& strText)
    {
        const ssize_t nSent = ::send(m_fd.get(), strText.data(), strText.size(), MSG_NOSIGNAL);
        return nSent < 0 ? 0 : static_cast<size_t>(nSent);
    }
    void endSending() { ::shutdown(m_fd.get(), SHUT_WR); }
    void close() { m_fd.close(); }

    // The lines that came since the last look, without their LF.
    std::vector<std::string> lines()
    {
        std::array<char, 65536> bytes;
        ssize_t nRead = 0;
        while ((nRead = ::recv(m_fd.get(), bytes.data(), bytes.size(), 0)) > 0)
            m_strText.append(bytes.data(), static_cast<size_t>(nRead));
        m_bEnded = nRead == 0 || errno == ECONNRESET;
        std::vector<std::string> vLines;
        for (size_t nEnd = 0; (nEnd = m_strText.find('\n')) != std::string::npos; m_strText.erase(0, nEnd + 1))
            vLines.push_back(m_strText.substr(0, nEnd));
        return vLines;
    }
    std::string line()
    {
        const auto vLines = lines();
        return vLines.size() == 1 ? vLines[0] : std::to_string(vLines.size()) + " lines instead of one";
    }
    bool hasEnded()
    {
        lines();
        return m_bEnded;
    }

private:
    CSocketFd m_fd;
    std::string m_strText;
    bool m_bEnded = false;
};

// Keeps what it hears of; answers by m_onRequest, and "echo" with the fields.
class CRecordingHandler : public CJsonLinesHandler
{
public:
    bool mayConnect(const CJsonPeer& peer) override { return m_mayConnect(peer); }
    void onConnected(ConnectionID nConnection, const CJsonPeer&) override { m_vConnected.push_back(nConnection); }
    void onRequest(ConnectionID nConnection, const CJsonRequest& request) override
    {
        m_vRequests.emplace_back(nConnection, request);
        m_onRequest(nConnection, request);
    }
    void onDisconnected(ConnectionID nConnection, const std::string& strWhy) override
    {
        m_vDisconnected.emplace_back(nConnection, strWhy);
        m_onDisconnected(nConnection);
    }

    std::function<bool(const CJsonPeer&)> m_mayConnect = [](const CJsonPeer&) { return true; };
    std::function<void(ConnectionID, const CJsonRequest&)> m_onRequest = [](ConnectionID, const CJsonRequest&) {};
    std::function<void(ConnectionID)> m_onDisconnected = [](ConnectionID) {};
    std::vector<ConnectionID> m_vConnected;
    std::vector<std::pair<ConnectionID, CJsonRequest>> m_vRequests;
    std::vector<std::pair<ConnectionID, std::string>> m_vDisconnected;
};

class JsonLines : public testing::Test
{
protected:
    void open(const std::function<void(CJsonLinesServer::CSettings&)>& change = [](auto&) {})
    {
        CJsonLinesServer::CSettings settings;
        settings.m_strPath = JSON_SOCKET_PATH;
        settings.m_log = [this](const std::string& strLine) { m_vLog.push_back(strLine); };
        change(settings);
        m_pServer = std::make_unique<CJsonLinesServer>(settings, m_handler);
        std::string strError;
        ASSERT_TRUE(m_pServer->open(strError)) << strError;
        m_handler.m_onRequest = [this](CJsonLinesHandler::ConnectionID nConnection, const CJsonRequest& request) {
            m_pServer->answer(nConnection, request.m_nID, {{"echo", request.m_fields}});
        };
    }

    // As long as there is something to do. False if that does not end.
    bool turn()
    {
        for (int n = 0; n < 100000; ++n)
        {
            if (!isReadable(m_pServer->descriptor()))
                return true;
            m_pServer->onReadable();
        }
        return false;
    }

    CRecordingHandler m_handler;
    std::vector<std::string> m_vLog;
    std::unique_ptr<CJsonLinesServer> m_pServer;
};

#endif
