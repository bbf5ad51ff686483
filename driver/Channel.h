// A call channel as a stream sees it: a mouth to listen to and an ear to play into.
#ifndef DRIVER_CHANNEL_H
#define DRIVER_CHANNEL_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

// All samples are µ-law, 8000 per second. A channel belongs to one stream.
class CChannel
{
public:
    virtual ~CChannel() = default;

    // Lets the caller hear samples. False when they could not be delivered.
    virtual bool Hear(std::span<const std::uint8_t> samples) = 0;

    // A play has ended: what was heard so far must now be visible to others. False on failure.
    virtual bool FinishHearing() = 0;

    // A recording begins. False, with the reason in strError, when the caller cannot be listened to.
    virtual bool BeginListening(std::string& strError) = 0;

    // Takes the next samples that the caller says. Fewer than asked for means that the caller has
    // ended; the recording is then over.
    virtual std::size_t Listen(std::span<std::uint8_t> samples) = 0;
};

// Makes the channels of call ids and legs.
class CChannelFactory
{
public:
    virtual ~CChannelFactory() = default;

    // Null, with the reason in strError, when there can be no such channel.
    virtual std::unique_ptr<CChannel> Open(const std::string& strCallID, std::uint32_t nLegID,
                                           std::string& strError) = 0;
};

#endif
