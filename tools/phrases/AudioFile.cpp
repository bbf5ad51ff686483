// Audio files as the media driver hears them: µ-law, 8000 samples a second, mono.
#include "phrases/AudioFile.h"

#include "AudioFormat.h"
#include "AudioReader.h"
#include "base/ToolError.h"

#include <fcntl.h>

namespace
{
constexpr size_t PIECE_SAMPLES = 64 << 10;

static_assert(MAX_PHRASE_FILE_SAMPLES == MAX_CLIP_SAMPLES);

std::unique_ptr<CAudioReader> openReader(const std::string& strPath, std::string& strError)
{
    CFd fd;
    struct stat status = {};
    if (!openAudioFile(strPath, O_RDONLY, fd, status, strError))
        return nullptr;
    return CAudioReader::open(std::move(fd), strPath, strError);
}
} // namespace

CMilliseconds durationOfSamples(uint64_t ullSamples)
{
    return CMilliseconds((ullSamples + 4) / 8);
}

std::optional<uint64_t> samplesIn(const std::string& strPath, std::string& strError)
{
    const auto pReader = openReader(strPath, strError);
    if (!pReader)
        return std::nullopt;
    // The limit stands for a header that does not tell.
    const size_t nSamples = pReader->maxSamples();
    if (nSamples >= MAX_CLIP_SAMPLES)
    {
        strError = "its header does not tell its length";
        return std::nullopt;
    }
    return nSamples;
}

std::vector<uint8_t> readSamples(const std::string& strPath)
{
    std::string strError;
    const auto pReader = openReader(strPath, strError);
    std::vector<uint8_t> vSamples;
    size_t nRead = 0;
    do
    {
        if (!pReader || vSamples.size() > MAX_CLIP_SAMPLES)
            break;
        vSamples.resize(vSamples.size() + PIECE_SAMPLES);
        nRead = pReader->read({vSamples.data() + vSamples.size() - PIECE_SAMPLES, PIECE_SAMPLES}, strError);
        vSamples.resize(vSamples.size() - PIECE_SAMPLES + nRead);
    } while (nRead == PIECE_SAMPLES);
    if (strError.empty() && vSamples.empty())
        strError = "it has no samples";
    if (strError.empty() && vSamples.size() > MAX_CLIP_SAMPLES)
        strError = "it is longer than two hours";
    if (!strError.empty())
        throw CToolError(EXIT_CODE_USAGE, strPath + ": " + strError);
    return vSamples;
}

bool isRawULawName(const std::string& strPath)
{
    const auto format = audioFormatOf(strPath);
    return format && format->m_nSndFormat == (SF_FORMAT_RAW | SF_FORMAT_ULAW);
}
