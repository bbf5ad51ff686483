// Reading audio files as µ-law at 8000 samples per second, mono.
#include "AudioReader.h"

#include "AudioFormat.h"
#include "G711.h"
#include "Text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <samplerate.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>

namespace
{
constexpr size_t PIECE_FRAMES = 8192;

// What a resampler may give more than the ratio says.
constexpr size_t RESAMPLER_SLACK = 64;

uint8_t encodeFloat(float f)
{
    // Also false for a NaN, which a damaged file may hold.
    if (!(f > -1.0F))
        return encodeULaw(f <= -1.0F ? INT16_MIN : 0);
    return encodeULaw(static_cast<int16_t>(std::lrint(std::min(f * 32768.0F, 32767.0F))));
}

// libsndfile leaks memory at each opening of an Ogg file that ends within its headers. It looks for what a
// file is behind ID3 tags; with more of them than a sound file has, it may be anything.
bool mayBeOgg(int nFd)
{
    off_t nTags = 0;
    for (int nTag = 0; nTag < 16; ++nTag)
    {
        std::array<unsigned char, 10> head{};
        if (::pread(nFd, head.data(), head.size(), nTags) < 4 || std::memcmp(head.data(), "ID3", 3) != 0)
            return std::memcmp(head.data(), "OggS", 4) == 0;
        nTags += 10 + ((head[6] & 0x7F) << 21 | (head[7] & 0x7F) << 14 | (head[8] & 0x7F) << 7 | (head[9] & 0x7F));
    }
    return true;
}
} // namespace

bool openAudioFile(const std::string& strPath, int nFlags, CFd& fd, struct stat& status, std::string& strError)
{
    // Non-blocking for the case that the path names a FIFO or a device.
    fd = CFd(::open(strPath.c_str(), nFlags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
    if (!fd.isOpen() || ::fstat(fd.get(), &status) != 0)
    {
        strError = errnoText(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode))
    {
        strError = "it is not a regular file";
        return false;
    }
    return true;
}

void CAudioReader::CResamplerDelete::operator()(SRC_STATE_tag* pState) const
{
    src_delete(pState);
}

CAudioReader::CAudioReader(CFd fd, CSndFile pFile, int nChannels)
    : m_fd(std::move(fd)), m_pFile(std::move(pFile)), m_nChannels(static_cast<size_t>(nChannels))
{
}

CAudioReader::~CAudioReader() = default;

std::unique_ptr<CAudioReader> CAudioReader::open(CFd fd, const std::string& strPath, std::string& strError)
{
    SF_INFO info = {};
    const auto format = audioFormatOf(strPath);
    if (format && format->m_bHeaderless)
    {
        info.format = format->m_nSndFormat;
        info.samplerate = 8000;
        info.channels = 1;
        if (::lseek(fd.get(), 0, SEEK_END) == 0)
        {
            // libsndfile takes an empty file for an error.
            return std::unique_ptr<CAudioReader>(new CAudioReader(std::move(fd), nullptr, 1));
        }
        ::lseek(fd.get(), 0, SEEK_SET);
    }
    if (mayBeOgg(fd.get()))
    {
        strError = "Ogg files are not read";
        return nullptr;
    }
    CSndFile pFile(sf_open_fd(fd.get(), SFM_READ, &info, SF_FALSE));
    if (!pFile)
    {
        strError = sf_strerror(nullptr);
        return nullptr;
    }
    if (info.channels < 1 || info.samplerate < 1)
    {
        strError = "it has no channels or no rate";
        return nullptr;
    }
    std::unique_ptr<CAudioReader> pReader(new CAudioReader(std::move(fd), std::move(pFile), info.channels));
    pReader->m_bULaw = (info.format & SF_FORMAT_SUBMASK) == SF_FORMAT_ULAW && info.channels == 1;
    if (info.samplerate != 8000 && !pReader->setUpResampler(info.samplerate, strError))
        return nullptr;
    // A FLAC file need not know its length: one without samples does not.
    const bool bUnknown = info.frames == SF_COUNT_MAX;
    const double dSamples =
        bUnknown ? static_cast<double>(MAX_CLIP_SAMPLES)
                 : std::ceil(static_cast<double>(std::max<sf_count_t>(info.frames, 0)) * pReader->m_dRatio);
    if (dSamples > static_cast<double>(MAX_CLIP_SAMPLES))
    {
        strError = "it is longer than two hours";
        return nullptr;
    }
    pReader->m_nMaxSamples = static_cast<size_t>(dSamples) + (pReader->m_pResampler ? RESAMPLER_SLACK : 0);
    return pReader;
}

bool CAudioReader::setUpResampler(int nRate, std::string& strError)
{
    m_dRatio = 8000.0 / nRate;
    m_bULaw = false;
    int nError = 0;
    m_pResampler.reset(src_is_valid_ratio(m_dRatio) != 0 ? src_new(SRC_SINC_MEDIUM_QUALITY, 1, &nError) : nullptr);
    if (!m_pResampler)
    {
        strError = fmt::format("its rate of {} samples per second cannot be converted", nRate);
        return false;
    }
    return true;
}

size_t CAudioReader::maxSamples() const
{
    return m_nMaxSamples;
}

size_t CAudioReader::read(std::span<uint8_t> buffer, std::string& strError)
{
    if (!m_pFile)
        return 0;
    const size_t nCount = m_bULaw        ? readULaw(buffer)
                          : m_pResampler ? readResampled(buffer, strError)
                                         : readLinear(buffer);
    if (nCount < buffer.size() && strError.empty() && sf_error(m_pFile.get()) != SF_ERR_NO_ERROR)
        strError = sf_strerror(m_pFile.get());
    return nCount;
}

size_t CAudioReader::readULaw(std::span<uint8_t> buffer)
{
    size_t nCount = 0;
    while (nCount < buffer.size())
    {
        const sf_count_t nRead =
            sf_read_raw(m_pFile.get(), buffer.data() + nCount, static_cast<sf_count_t>(buffer.size() - nCount));
        if (nRead <= 0)
            break;
        nCount += static_cast<size_t>(nRead);
    }
    return nCount;
}

size_t CAudioReader::readLinear(std::span<uint8_t> buffer)
{
    size_t nCount = 0;
    while (nCount < buffer.size())
    {
        const size_t nFrames = readMono(std::min(PIECE_FRAMES, buffer.size() - nCount));
        if (nFrames == 0)
            break;
        std::transform(m_vFrames.data(), m_vFrames.data() + nFrames, buffer.data() + nCount, encodeFloat);
        nCount += nFrames;
    }
    return nCount;
}

size_t CAudioReader::readResampled(std::span<uint8_t> buffer, std::string& strError)
{
    std::array<float, PIECE_FRAMES> afOut;
    size_t nCount = 0;
    while (nCount < buffer.size())
    {
        if (m_nInput == 0 && !m_bInputEnded)
        {
            m_nInput = readMono(PIECE_FRAMES);
            m_pInput = m_vFrames.data();
            m_bInputEnded = m_nInput == 0;
        }
        SRC_DATA data = {};
        data.data_in = m_pInput;
        data.input_frames = static_cast<long>(m_nInput);
        data.end_of_input = m_bInputEnded ? 1 : 0;
        data.src_ratio = m_dRatio;
        data.data_out = afOut.data();
        data.output_frames = static_cast<long>(std::min(afOut.size(), buffer.size() - nCount));
        const int nError = src_process(m_pResampler.get(), &data);
        if (nError != 0)
        {
            strError = src_strerror(nError);
            break;
        }
        m_pInput += data.input_frames_used;
        m_nInput -= static_cast<size_t>(data.input_frames_used);
        std::transform(afOut.data(), afOut.data() + data.output_frames_gen, buffer.data() + nCount, encodeFloat);
        nCount += static_cast<size_t>(data.output_frames_gen);
        if (data.output_frames_gen == 0 && (m_bInputEnded || data.input_frames_used == 0))
            break;
    }
    return nCount;
}

// Reads the next frames and mixes them to mono, into the beginning of m_vFrames. 0 at the end.
size_t CAudioReader::readMono(size_t nFrames)
{
    // As many channels as a file may claim must not mean as much memory.
    nFrames = std::max<size_t>(1, std::min(nFrames, PIECE_FRAMES / m_nChannels));
    m_vFrames.resize(std::max(m_vFrames.size(), nFrames * m_nChannels));
    const sf_count_t nRead = sf_readf_float(m_pFile.get(), m_vFrames.data(), static_cast<sf_count_t>(nFrames));
    const size_t nCount = nRead > 0 ? static_cast<size_t>(nRead) : 0;
    for (size_t nFrame = 0; nFrame < nCount && m_nChannels > 1; ++nFrame)
    {
        float fSum = 0.0F;
        for (size_t nChannel = 0; nChannel < m_nChannels; ++nChannel)
            fSum += m_vFrames[nFrame * m_nChannels + nChannel];
        m_vFrames[nFrame] = fSum / static_cast<float>(m_nChannels);
    }
    return nCount;
}
