// The codecs of RTP streams. Inside, all audio is µ-law at 8000 samples per second.
#include "Codec.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace
{
constexpr std::array CODECS = {
    &CODEC_PCMU,
    &CODEC_PCMA,
    &CODEC_G722,
    &CODEC_OPUS,
};
} // namespace

std::span<const CCodec* const> codecs()
{
    return CODECS;
}

const CCodec* findCodec(std::string_view name, unsigned nClockRate)
{
    const auto it = std::find_if(CODECS.begin(), CODECS.end(), [&](const CCodec* pCodec) {
        return pCodec->m_nClockRate == nClockRate && std::strlen(pCodec->m_pName) == name.size() &&
               ::strncasecmp(pCodec->m_pName, name.data(), name.size()) == 0;
    });
    return it == CODECS.end() ? nullptr : *it;
}
