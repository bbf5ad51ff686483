// Fuzzes the driver's loader of audio files: any bytes under a name with any ending, decoded in full.
#include "AudioFormat.h"
#include "ClipStore.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace
{
void require(bool bHolds)
{
    if (!bHolds)
        std::abort();
}

// A fresh folder of this process, which is the working directory.
void EnterFolder()
{
    static const bool bEntered = [] {
        char szTemplate[] = "/tmp/clip-fuzz-XXXXXX";
        require(::mkdtemp(szTemplate) != nullptr && ::chdir(szTemplate) == 0);
        spdlog::set_default_logger(
            std::make_shared<spdlog::logger>("none", std::make_shared<spdlog::sinks::null_sink_st>()));
        return true;
    }();
    require(bEntered);
}

// What every file comes to: a reason, or samples that are all there.
void check(const CClipPtr& pClip, const std::string& strError)
{
    require((pClip == nullptr) == !strError.empty());
    if (!pClip)
        return;
    const size_t nSamples = pClip->ready();
    require(nSamples <= MAX_CLIP_SAMPLES + 64);
    unsigned int nSum = 0;
    for (size_t n = 0; n < nSamples; ++n)
        nSum += pClip->samples()[n];
    volatile unsigned int nRead = nSum;
    static_cast<void>(nRead);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    static const char* const ENDINGS[] = {".wav", ".au",   ".snd", ".flac", ".ul", ".ulaw", ".raw",
                                          ".al",  ".alaw", ".sln", ".pcm",  "",    ".aiff", ".WAV"};
    if (nSize < 2)
        return 0;
    EnterFolder();
    const std::string strPath = std::string("clip") + ENDINGS[pData[0] % std::size(ENDINGS)];
    std::ofstream(strPath, std::ios::binary)
        .write(reinterpret_cast<const char*>(pData) + 2, static_cast<std::streamsize>(nSize - 2));

    CInlineExecutor executor;
    CClipStore store(executor);
    CClipPtr pLoaded;
    int nTold = 0;
    store.load(strPath, size_t{pData[1]} * 100, [&](const CClipPtr& pClip, const std::string& strError) {
        ++nTold;
        check(pClip, strError);
        pLoaded = pClip;
    });
    require(nTold == 1);
    if (pLoaded)
    {
        require(pLoaded->isDecoded());
        check(pLoaded, {});
        // A second holder gets the same clip, unless the file is damaged.
        store.load(strPath, 0, [&](const CClipPtr& pClip, const std::string& strError) {
            ++nTold;
            check(pClip, strError);
            require(pLoaded->isBroken() || pClip == pLoaded);
        });
        require(nTold == 2);
    }
    ::unlink(strPath.c_str());
    return 0;
}
