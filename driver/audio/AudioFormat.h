// The format of an audio file by the ending of its path.
#ifndef DRIVER_AUDIO_FORMAT_H
#define DRIVER_AUDIO_FORMAT_H

#include <optional>
#include <string>

// SF_FORMAT_ values of libsndfile, 8000 samples per second and mono.
struct CAudioFormat
{
    int m_nSndFormat;
    bool m_bHeaderless; // nothing but samples, so that only the ending tells the format
};

// None for an ending without a format. The endings, in any case:
//   .wav .au .snd       µ-law with a header
//   .ul .ulaw .raw      µ-law, headerless
//   .al .alaw           A-law, headerless
//   .sln .pcm           16-bit linear, little-endian, headerless
//   .flac               16-bit linear, compressed without loss
// Files with a header are read whatever they hold; this is how they are written.
std::optional<CAudioFormat> audioFormatOf(const std::string& strPath);

// The endings as a list for messages.
extern const char* const AUDIO_ENDINGS;

#endif
