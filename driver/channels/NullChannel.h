// Channels without a line: what is played vanishes at the pace of the clock, the caller is silent.
#ifndef DRIVER_NULL_CHANNEL_H
#define DRIVER_NULL_CHANNEL_H

#include "Channel.h"
#include "G711.h"

#include <algorithm>

class CNullChannel : public CChannel
{
public:
    const char* kind() const override { return "null"; }

    size_t hear(std::span<const uint8_t> samples) override { return samples.size(); }

    size_t listen(std::span<uint8_t> samples) override
    {
        std::fill(samples.begin(), samples.end(), ULAW_SILENCE);
        return samples.size();
    }
};

#endif
