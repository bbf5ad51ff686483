// Reading audio files into memory as µ-law at 8000 samples per second, mono.
#ifndef DRIVER_AUDIO_READER_H
#define DRIVER_AUDIO_READER_H

#include "Fd.h"

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

// One byte of µ-law per sample.
using CSamples = std::vector<std::uint8_t>;

// The longest audio that is taken into memory: two hours.
constexpr std::size_t MAX_CLIP_SAMPLES = std::size_t{2} * 3600 * 8000;

// Opens an audio file for reading, without ever blocking. Anything but a regular file is an error.
// On failure strError says why, without the path.
bool OpenAudioFile(const std::string& strPath, CFd& fd, struct stat& status, std::string& strError);

// Decodes an open audio file. What is µ-law at 8000 samples per second and mono already is taken
// byte for byte: WAV and AU by their headers, headerless files by the endings .ul, .ulaw and .raw of
// strPath. Anything else that libsndfile knows is mixed to mono and resampled.
// On failure strError says why, without the path, and samples holds nothing of use.
bool DecodeAudioFile(const CFd& fd, const std::string& strPath, CSamples& samples, std::string& strError);

// Whether the path has the given ending, in any case: ".wav".
bool HasEnding(const std::string& strPath, const char* pEnding);

// Whether the path names a headerless µ-law file.
bool IsRawULawPath(const std::string& strPath);

#endif
