// A call channel as a stream sees it: a mouth to listen to and an ear to play into.
#ifndef DRIVER_CHANNEL_H
#define DRIVER_CHANNEL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

// All samples are µ-law, 8000 per second. A channel belongs to one stream and is used on the loop's
// thread only. hear and listen run on the media tick: they neither block, lock nor allocate.
//
// The functions given to the other operations are called once, on the loop's thread, at once or later,
// even after the channel is gone.
class CChannel
{
public:
    using FinishFunction = std::function<void(bool bOk)>;
    using BeginFunction = std::function<void(bool bOk, const std::string& strError)>;

    virtual ~CChannel() = default;

    // "file", "null" or "rtp".
    virtual const char* kind() const = 0;

    // Whether its time is that of the clock. The others go on as fast as the machine can.
    virtual bool isRealTime() const { return true; }

    // What the caller says while nobody listens is gone: there is no asking for it later.
    virtual bool isLive() const { return false; }

    // The caller has done something in this tick that ends what plays.
    virtual bool isInterrupted() const { return false; }

    // Lets the caller hear samples. Returns how many were taken: fewer than given when the rest has to
    // wait for the next tick. After a failure that lasts nothing is taken and hasFailed holds.
    virtual size_t hear(std::span<const uint8_t> samples) = 0;
    virtual bool hasFailed() const { return false; }

    // A play has ended: what was heard so far is visible to others when done is called.
    virtual void finishHearing(FinishFunction done) { done(true); }

    // A recording is to begin. It cannot when bOk is false.
    virtual void beginListening(BeginFunction done) { done(true, {}); }

    // Takes the next samples that the caller says. Fewer than asked for when there are no more in this
    // tick, or, if hasCallerEnded holds afterwards, ever; the recording is then over.
    virtual size_t listen(std::span<uint8_t> samples) = 0;
    virtual bool hasCallerEnded() const { return false; }

    // The caller has ended before the time: what he says could not be had to its end.
    virtual bool hasCallerFailed() const { return false; }

    // A recording has ended.
    virtual void endListening() {}

    // Work that came up on the tick and may lock and allocate: asked for after each tick in which the
    // channel was used.
    virtual bool wantsService() const { return false; }
    virtual void service() {}
};

// Makes the channels of call ids and legs.
class CChannelFactory
{
public:
    // Null, with the reason in strError, when there can be no such channel.
    using OpenFunction = std::function<void(std::unique_ptr<CChannel> pChannel, const std::string& strError)>;

    virtual ~CChannelFactory() = default;

    // Calls done once, on the loop's thread, at once or later.
    virtual void open(const std::string& strCallID, uint32_t nLegID, OpenFunction done) = 0;
};

#endif
