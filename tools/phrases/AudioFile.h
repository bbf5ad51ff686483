// Audio files as the media driver hears them: µ-law, 8000 samples a second, mono.
#ifndef AUDIO_FILE_H
#define AUDIO_FILE_H

#include "base/Duration.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What a phrase file can hold: the driver takes no longer ones.
constexpr size_t MAX_PHRASE_FILE_SAMPLES = size_t{2} * 3600 * 8000;

CMilliseconds durationOfSamples(uint64_t ullSamples);

// The samples that a file holds by its header. Nothing where they cannot be told, with the reason in strError.
std::optional<uint64_t> samplesIn(const std::string& strPath, std::string& strError);

// All samples of a file. Throws CToolError for what is no audio, has no samples, or is damaged.
std::vector<uint8_t> readSamples(const std::string& strPath);

// Whether a file of this name is read as nothing but µ-law samples.
bool isRawULawName(const std::string& strPath);

#endif
