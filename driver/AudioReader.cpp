// Reading audio files into memory as µ-law at 8000 samples per second, mono.
#include "AudioReader.h"

#include "G711.h"
#include "SndFile.h"
#include "Text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <samplerate.h>
#include <strings.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>

namespace
{
const char* const TOO_LONG = "it is longer than two hours";

struct CSrcDelete
{
    void operator()(SRC_STATE* pState) const { src_delete(pState); }
};

std::uint8_t EncodeFloat(float f)
{
    // Also false for a NaN, which a damaged file may hold.
    if (!(f > -1.0F))
    {
        return EncodeULaw(f <= -1.0F ? INT16_MIN : 0);
    }
    return EncodeULaw(static_cast<std::int16_t>(std::lrint(std::min(f * 32768.0F, 32767.0F))));
}

bool Append(CSamples& samples, const float* pMono, std::size_t nCount, std::string& strError)
{
    if (nCount > MAX_CLIP_SAMPLES - samples.size())
    {
        strError = TOO_LONG;
        return false;
    }
    for (std::size_t n = 0; n < nCount; ++n)
    {
        samples.push_back(EncodeFloat(pMono[n]));
    }
    return true;
}

bool ReadULaw(SNDFILE* pFile, CSamples& samples, std::string& strError)
{
    std::array<std::uint8_t, 65536> abChunk;
    for (;;)
    {
        const sf_count_t nRead = sf_read_raw(pFile, abChunk.data(), static_cast<sf_count_t>(abChunk.size()));
        if (nRead <= 0)
        {
            return true;
        }
        if (static_cast<std::size_t>(nRead) > MAX_CLIP_SAMPLES - samples.size())
        {
            strError = TOO_LONG;
            return false;
        }
        samples.insert(samples.end(), abChunk.begin(), abChunk.begin() + nRead);
    }
}

// Reads the next frames and mixes them to mono, in place of the frames. Returns their number, 0 at the end.
std::size_t ReadMono(SNDFILE* pFile, std::size_t nChannels, std::vector<float>& vFrames)
{
    const sf_count_t nRead = sf_readf_float(pFile, vFrames.data(), static_cast<sf_count_t>(vFrames.size() / nChannels));
    const std::size_t nFrames = nRead > 0 ? static_cast<std::size_t>(nRead) : 0;
    for (std::size_t nFrame = 0; nFrame < nFrames && nChannels > 1; ++nFrame)
    {
        float fSum = 0.0F;
        for (std::size_t nChannel = 0; nChannel < nChannels; ++nChannel)
        {
            fSum += vFrames[nFrame * nChannels + nChannel];
        }
        vFrames[nFrame] = fSum / static_cast<float>(nChannels);
    }
    return nFrames;
}

bool ReadAndConvert(SNDFILE* pFile, const SF_INFO& info, CSamples& samples, std::string& strError)
{
    const std::size_t nChannels = static_cast<std::size_t>(info.channels);
    std::vector<float> vFrames((std::max<std::size_t>(1, 8192 / nChannels)) * nChannels);
    std::unique_ptr<SRC_STATE, CSrcDelete> pResampler;
    const double dRatio = 8000.0 / info.samplerate;
    if (info.samplerate != 8000)
    {
        int nError = 0;
        pResampler.reset(src_is_valid_ratio(dRatio) ? src_new(SRC_SINC_MEDIUM_QUALITY, 1, &nError) : nullptr);
        if (!pResampler)
        {
            strError = fmt::format("its rate of {} samples per second cannot be converted", info.samplerate);
            return false;
        }
    }

    std::array<float, 8192> afOut;
    for (;;)
    {
        const std::size_t nFrames = ReadMono(pFile, nChannels, vFrames);
        if (!pResampler)
        {
            if (nFrames == 0)
            {
                return true;
            }
            if (!Append(samples, vFrames.data(), nFrames, strError))
            {
                return false;
            }
            continue;
        }

        SRC_DATA data = {};
        data.data_in = vFrames.data();
        data.input_frames = static_cast<long>(nFrames);
        data.end_of_input = nFrames == 0 ? 1 : 0;
        data.src_ratio = dRatio;
        do
        {
            data.data_out = afOut.data();
            data.output_frames = static_cast<long>(afOut.size());
            const int nError = src_process(pResampler.get(), &data);
            if (nError != 0)
            {
                strError = src_strerror(nError);
                return false;
            }
            if (!Append(samples, afOut.data(), static_cast<std::size_t>(data.output_frames_gen), strError))
            {
                return false;
            }
            data.data_in += data.input_frames_used;
            data.input_frames -= data.input_frames_used;
        } while (data.output_frames_gen > 0 || (data.input_frames > 0 && data.input_frames_used > 0));

        if (nFrames == 0)
        {
            return true;
        }
    }
}
} // namespace

bool HasEnding(const std::string& strPath, const char* pEnding)
{
    const std::size_t nLength = std::strlen(pEnding);
    return strPath.size() > nLength && ::strcasecmp(strPath.c_str() + strPath.size() - nLength, pEnding) == 0;
}

bool IsRawULawPath(const std::string& strPath)
{
    return HasEnding(strPath, ".ul") || HasEnding(strPath, ".ulaw") || HasEnding(strPath, ".raw");
}

bool OpenAudioFile(const std::string& strPath, CFd& fd, struct stat& status, std::string& strError)
{
    // Non-blocking for the case that the path names a FIFO or a device.
    fd = CFd(::open(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd.IsOpen() || ::fstat(fd.Get(), &status) != 0)
    {
        strError = ErrnoText(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode))
    {
        strError = "it is not a regular file";
        return false;
    }
    return true;
}

bool DecodeAudioFile(const CFd& fd, const std::string& strPath, CSamples& samples, std::string& strError)
{
    SF_INFO info = {};
    if (IsRawULawPath(strPath))
    {
        info.format = SF_FORMAT_RAW | SF_FORMAT_ULAW;
        info.samplerate = 8000;
        info.channels = 1;
        if (::lseek(fd.Get(), 0, SEEK_END) == 0)
        {
            samples.clear(); // libsndfile takes an empty file for an error
            return true;
        }
        ::lseek(fd.Get(), 0, SEEK_SET);
    }
    const CSndFile pFile(sf_open_fd(fd.Get(), SFM_READ, &info, SF_FALSE));
    if (!pFile)
    {
        strError = sf_strerror(nullptr);
        return false;
    }
    if (info.channels < 1 || info.samplerate < 1)
    {
        strError = "it has no channels or no rate";
        return false;
    }
    samples.clear();
    const bool bULaw = (info.format & SF_FORMAT_SUBMASK) == SF_FORMAT_ULAW;
    const bool bOk = bULaw && info.channels == 1 && info.samplerate == 8000
                         ? ReadULaw(pFile.get(), samples, strError)
                         : ReadAndConvert(pFile.get(), info, samples, strError);
    samples.shrink_to_fit();
    return bOk;
}
