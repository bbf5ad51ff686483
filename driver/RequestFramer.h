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
//   certain   a connect request that names two pipes of the fixed prefixes, or a command of a live client
//             with its next number (see IsNext);
//   possible  anything else that has the id of a live client or the code of a command;
//   rubbish   all the rest.
// A certain request is never lost, whatever is before it. A possible one is given out where the one before
// it ended, unless a certain one begins inside: others are to refuse it with its reason.
class CRequestFramer
{
public:
    // The number of the latest request that came from a client: of its connect request, and then of each
    // one that IsNext, whatever became of it. Other numbers must not count, or rubbish would make more
    // rubbish certain. None when no live client has the id.
    using LatestFunction = std::function<std::optional<std::uint32_t>(int nConnectID)>;

    static constexpr std::size_t BUFFER_BYTES = 65536;

    // Whether a number is one of the 4096 after the latest one. Numbers begin again after the largest.
    static bool IsNext(std::uint32_t nLatest, std::uint32_t nSequenceNo);

    explicit CRequestFramer(LatestFunction latest);

    // Where the next bytes go. There is room for a request at least after Next has returned false.
    std::span<unsigned char> Room();

    // So many bytes of Room were filled. bAll: there were no more in the pipe behind them. No request is
    // cut off there, so a rest that is too short for one is rubbish.
    void Added(std::size_t nBytes, bool bAll);

    // Gives out the next request. False when that takes more bytes. Takes BUFFER_BYTES at most.
    bool Next(structMICMD& cmd);

    // Bytes that wait, for Next or for what comes behind them.
    std::size_t Waiting() const;

    // Bytes of rubbish since the last call.
    std::size_t TakeRubbish();

private:
    enum class ELook
    {
        Certain,
        Possible,
        Rubbish
    };

    ELook Look(std::size_t nPosition) const;
    std::size_t NextCertain() const;
    void Take(structMICMD& cmd);
    void Drop(std::size_t nBytes);

    const LatestFunction m_latest;
    std::vector<unsigned char> m_vBuffer;
    std::size_t m_nBegin = 0; // what waits is [m_nBegin, m_nEnd)
    std::size_t m_nEnd = 0;
    bool m_bAll = false;
    std::size_t m_nRubbish = 0;
};

#endif
