// Channels without a line: what is played vanishes at the pace of the clock, the caller is silent.
#ifndef DRIVER_NULL_CHANNEL_H
#define DRIVER_NULL_CHANNEL_H

#include "Channel.h"
#include "G711.h"

#include <algorithm>

class CNullChannel : public CChannel
{
public:
    const char* Kind() const override { return "null"; }

    std::size_t Hear(std::span<const std::uint8_t> samples) override { return samples.size(); }

    std::size_t Listen(std::span<std::uint8_t> samples) override
    {
        std::fill(samples.begin(), samples.end(), ULAW_SILENCE);
        return samples.size();
    }
};

#endif
