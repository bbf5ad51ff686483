// Cuts the bytes of the request pipe into requests, and finds the next one behind bytes that are none.
#ifndef DRIVER_REQUEST_FRAMER_H
#define DRIVER_REQUEST_FRAMER_H

#include "MediaProtocol.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

// The pipe has no marks between requests, but clients write them whole. So a request is never mixed with
// other bytes, though any number of other bytes may come before it. It is known by its looks:
//   expected  a connect request that names two pipes of the fixed prefixes, or a command of a live client
//             with the number after its latest;
//   likely    a command of a live client with another of the next 64 numbers, where a request is sure to
//             begin: some of its requests may have been lost;
//   possible  a command of a client that is not there, a connect request with other names, or the next
//             number of a live client with a code that is no command's;
//   rubbish   all the rest. Numbers of live clients that are none of the next are left unanswered, because
//             an answer that it does not wait for disturbs a client.
// Where the last request ended the next one begins, unless one that looks better begins inside it. No
// rubbish before it hides an expected one, and that is what clients send. A possible one is given out only
// where the last one ended, so that it can be refused with its reason.
class CRequestFramer
{
public:
    // The number of the latest request that was given out of a client, its connect request at first; none
    // when no live client has the id.
    using LatestFunction = std::function<std::optional<uint32_t>(int nConnectID)>;

    static constexpr size_t BUFFER_BYTES = 65536;

    explicit CRequestFramer(LatestFunction latest);

    // Where the next bytes go. There is room for a request at least after next has returned false.
    std::span<unsigned char> room();

    // So many bytes of room were filled. bAll: there were no more in the pipe behind them. No request is
    // cut off there, so a rest that is too short for one is rubbish.
    void added(size_t nBytes, bool bAll);

    // Gives out the next request. False when that takes more bytes. Takes BUFFER_BYTES at most.
    bool next(structMICMD& cmd);

    // Bytes that wait, for next or for what comes behind them.
    size_t waiting() const;

    // Bytes of rubbish since the last call.
    size_t takeRubbish();

private:
    enum class ELook
    {
        Rubbish,
        Possible,
        Likely,
        Expected
    };

    ELook look(size_t nPosition) const;
    ELook findBest(size_t& nAhead) const;
    void take(structMICMD& cmd);
    void drop(size_t nBytes);

    const LatestFunction m_latest;
    std::vector<unsigned char> m_vBuffer;
    size_t m_nBegin = 0; // what waits is [m_nBegin, m_nEnd)
    size_t m_nEnd = 0;
    bool m_bAll = false;
    bool m_bInStep = true; // a write of somebody is sure to begin at m_nBegin
    size_t m_nRubbish = 0;
};

#endif
