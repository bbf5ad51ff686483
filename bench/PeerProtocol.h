// What the worker tells the peer beyond the records of the pipes: how plays end, and when.
#ifndef PEER_PROTOCOL_H
#define PEER_PROTOCOL_H

#include "MediaProtocol.h"

#include <cstdint>
#include <cstring>

// nPlayParam of a play: how the peer ends it.
enum : uint32_t
{
    PEER_PLAY_HOLD = 0,     // by PEER_FINISH, or by a cancel, with MCS_CANCELLED
    PEER_PLAY_AT_ONCE = 1,  // MIEVT_DONE follows the response back to back
    PEER_PLAY_HAND_OVER = 2 // MIEVT_DONE follows when the client has come to rest: see CPeerTimes
};

// Commands of the peer's own, in request records.
constexpr MICMD PEER_FINISH = static_cast<MICMD>(1001); // ends held plays in one burst; no response
constexpr MICMD PEER_TELL = static_cast<MICMD>(1002);   // MIRSP_STATUS with CPeerTimes in abReserved

struct CPeerFinish // the body of PEER_FINISH
{
    int32_t nConnectID; // of the client whose plays are meant
    int32_t nStreamID;  // 0: all its held plays
};

// Times of CLOCK_MONOTONIC, in nanoseconds.
struct CPeerTimes
{
    int64_t nBurst;       // just before the first event of the last PEER_FINISH was written
    int64_t nHandOverSum; // from just before an MIEVT_DONE was written until the next play of that mode was read,
    int64_t nHandOvers;   // summed up since the last PEER_TELL, and how often
};
static_assert(sizeof(CPeerTimes) <= sizeof(structMIRSP::abReserved));

#endif
