// Reading audio files as µ-law at 8000 samples per second, mono.
#ifndef DRIVER_AUDIO_READER_H
#define DRIVER_AUDIO_READER_H

#include "Fd.h"
#include "SndFile.h"

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

struct SRC_STATE_tag;

// The longest audio that is taken into memory: two hours.
constexpr size_t MAX_CLIP_SAMPLES = size_t{2} * 3600 * 8000;

// Opens an audio file without ever blocking. nFlags are those of open that say what for; a file that they
// create gets mode 0666 less the umask. Anything but a regular file is an error. On failure strError says
// why, without the path.
bool openAudioFile(const std::string& strPath, int nFlags, CFd& fd, struct stat& status, std::string& strError);

// Decodes one open audio file from beginning to end. What is µ-law at 8000 samples per second and mono
// already is taken byte for byte: WAV and AU by their headers, headerless files by the ending of the
// path (see AudioFormat.h). Anything else that libsndfile knows is mixed to mono and resampled.
class CAudioReader
{
public:
    // Reads the header. Null, with the reason without the path in strError, when it is no audio file,
    // or one of more than MAX_CLIP_SAMPLES.
    static std::unique_ptr<CAudioReader> open(CFd fd, const std::string& strPath, std::string& strError);

    ~CAudioReader();

    // The most samples that the file can give, by its header.
    size_t maxSamples() const;

    // Decodes the next samples into the buffer and returns their number: fewer than it holds at the end
    // of the file, or where the file is damaged, with the reason in strError then.
    size_t read(std::span<uint8_t> buffer, std::string& strError);

private:
    CAudioReader(CFd fd, CSndFile pFile, int nChannels);

    bool setUpResampler(int nRate, std::string& strError);
    size_t readULaw(std::span<uint8_t> buffer);
    size_t readLinear(std::span<uint8_t> buffer);
    size_t readResampled(std::span<uint8_t> buffer, std::string& strError);
    size_t readMono(size_t nFrames);

    CFd m_fd;
    CSndFile m_pFile;
    const size_t m_nChannels;
    size_t m_nMaxSamples = 0;
    bool m_bULaw = false;
    std::vector<float> m_vFrames; // as read, then mixed to mono in place

    struct CResamplerDelete
    {
        void operator()(SRC_STATE_tag* pState) const;
    };
    std::unique_ptr<SRC_STATE_tag, CResamplerDelete> m_pResampler; // null where the rate is 8000
    double m_dRatio = 1.0;
    const float* m_pInput = nullptr; // what the resampler has not taken yet, in m_vFrames
    size_t m_nInput = 0;
    bool m_bInputEnded = false;
};

#endif
