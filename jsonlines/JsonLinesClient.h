// The client's end of JSON lines over a Unix stream socket.
#ifndef JSON_LINES_CLIENT_H
#define JSON_LINES_CLIENT_H

#include "JsonLinesStream.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// One connection at a time, for a loop that is somebody else's: nothing here waits. Not thread-safe.
//
//   client.connect(strPath, strError)
//   ... watch client.descriptor() for client.wantedEvents(), anew after each call, and whenever one of them or an
//   error is there: client.onReady(...)
class CJsonLinesClient
{
public:
    // Of the lines that come; those of the server may list much.
    static constexpr size_t MAX_LINE = 16U << 20U;

    using MessageFunction = std::function<void(const nlohmann::json& message)>;

    // False, with the reason in strError, when nobody is there. The connection before, if any, is closed.
    bool connect(const std::string& strPath, std::string& strError);
    void close();
    bool isConnected() const { return m_pStream != nullptr; }

    int descriptor() const; // -1 when not connected
    // EPOLLIN and EPOLLOUT, which are POLLIN and POLLOUT, too.
    uint32_t wantedEvents() const;

    // Reads once, sends what the server takes, and calls the function for each object that has come: hello, answers,
    // events. The function may call anything of this object but onReady and the destructor. False when the
    // connection is over, with the reason in strError: it is closed then.
    bool onReady(const MessageFunction& message, std::string& strError);

    // Sends the object with the next id, which is the result; ids begin at 1 with each connection. 0, and nothing is
    // sent, when not connected. A connection that breaks here is told by onReady.
    uint64_t request(nlohmann::ordered_json request);
    // The bytes that the server has not taken yet.
    size_t waiting() const;

private:
    std::shared_ptr<CJsonLinesStream> m_pStream; // shared, as a message may close the connection it came by
    uint64_t m_ullLastID = 0;
};

// For programs that ask one thing: connects, sends the request as it is, waits for its answer, passes over whatever
// else comes before. False, with the reason in strError, when there is none within the limit; a refusal is an answer.
bool askJsonLines(const std::string& strPath, const nlohmann::ordered_json& request, std::chrono::milliseconds limit,
                  nlohmann::json& answer, std::string& strError);

#endif
