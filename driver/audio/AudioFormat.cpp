// The format of an audio file by the ending of its path.
#include "AudioFormat.h"

#include <sndfile.h>
#include <strings.h>

#include <cstring>

namespace
{
struct CEnding
{
    const char* m_pText;
    CAudioFormat m_format;
};

constexpr CEnding ENDINGS[] = {
    {".wav", {SF_FORMAT_WAV | SF_FORMAT_ULAW, false}},
    {".au", {SF_FORMAT_AU | SF_FORMAT_ULAW, false}},
    {".snd", {SF_FORMAT_AU | SF_FORMAT_ULAW, false}},
    {".flac", {SF_FORMAT_FLAC | SF_FORMAT_PCM_16, false}},
    {".ul", {SF_FORMAT_RAW | SF_FORMAT_ULAW, true}},
    {".ulaw", {SF_FORMAT_RAW | SF_FORMAT_ULAW, true}},
    {".raw", {SF_FORMAT_RAW | SF_FORMAT_ULAW, true}},
    {".al", {SF_FORMAT_RAW | SF_FORMAT_ALAW, true}},
    {".alaw", {SF_FORMAT_RAW | SF_FORMAT_ALAW, true}},
    {".sln", {SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE, true}},
    {".pcm", {SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE, true}},
};
} // namespace

const char* const AUDIO_ENDINGS = ".wav .au .snd .flac .ul .ulaw .raw .al .alaw .sln .pcm";

std::optional<CAudioFormat> audioFormatOf(const std::string& strPath)
{
    for (const CEnding& ending : ENDINGS)
    {
        const size_t nLength = std::strlen(ending.m_pText);
        if (strPath.size() > nLength && ::strcasecmp(strPath.c_str() + strPath.size() - nLength, ending.m_pText) == 0)
            return ending.m_format;
    }
    return std::nullopt;
}
