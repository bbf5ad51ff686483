// The program speech-check: proves by samples what a caller heard, and that a recording is the caller's speech.

// The optimizer of gcc 12 sees a null pointer in the growing string vectors of CLI11 where there is none.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop
#include <sndfile.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace
{
using Samples = std::vector<int16_t>;

const size_t RATE = 8000;
const size_t MAX_SAMPLES = RATE * 3600;

enum EXIT_CODE
{
    EXIT_PROVED = 0,
    EXIT_DIFFERS = 1,
    EXIT_BAD_INPUT = 2
};

// An argument or a file with which no check is possible.
class CBadInput : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

double seconds(size_t nSamples)
{
    return static_cast<double>(nSamples) / static_cast<double>(RATE);
}

// Number of silent samples in a row from nFrom on.
size_t silenceAt(const Samples& vSamples, size_t nFrom)
{
    const auto from = vSamples.begin() + static_cast<std::ptrdiff_t>(nFrom);
    const auto speech = std::find_if(from, vSamples.end(), [](int16_t nSample) { return nSample != 0; });
    return static_cast<size_t>(speech - from);
}

bool isSilent(const Samples& vSamples)
{
    return silenceAt(vSamples, 0) == vSamples.size();
}

using SoundFile = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

SoundFile openSound(const std::string& strName, SF_INFO& info)
{
    // Opening a FIFO would wait for its writer, a device might never end.
    std::error_code error;
    if (!std::filesystem::is_regular_file(strName, error))
        throw CBadInput("\"" + strName + "\": no such file, or not a plain file");
    info = SF_INFO{};
    if (std::filesystem::path(strName).extension() == ".ul")
    {
        info.format = SF_FORMAT_RAW | SF_FORMAT_ULAW;
        info.samplerate = static_cast<int>(RATE);
        info.channels = 1;
    }
    SoundFile file(sf_open(strName.c_str(), SFM_READ, &info), sf_close);
    if (!file)
        throw CBadInput("\"" + strName + "\": " + sf_strerror(nullptr));
    return file;
}

// The whole file as 16 bit samples. The length in its header is not believed.
Samples readSound(const std::string& strName)
{
    SF_INFO info;
    const SoundFile file = openSound(strName, info);
    if (info.channels != 1 || info.samplerate != static_cast<int>(RATE))
    {
        throw CBadInput("\"" + strName + "\": " + std::to_string(info.channels) + " channel(s) at " +
                        std::to_string(info.samplerate) + "/s, wanted is mono at " + std::to_string(RATE) + "/s");
    }
    const int nSubtype = info.format & SF_FORMAT_SUBMASK;
    if (nSubtype != SF_FORMAT_PCM_16 && nSubtype != SF_FORMAT_ULAW)
        throw CBadInput("\"" + strName + "\": neither 16 bit PCM nor mu-law, so not comparable by samples");
    Samples vSamples;
    Samples vBlock(RATE);
    sf_count_t llRead;
    while ((llRead = sf_read_short(file.get(), vBlock.data(), static_cast<sf_count_t>(vBlock.size()))) > 0)
    {
        vSamples.insert(vSamples.end(), vBlock.begin(), vBlock.begin() + static_cast<std::ptrdiff_t>(llRead));
        if (vSamples.size() > MAX_SAMPLES)
            throw CBadInput("\"" + strName + "\": longer than an hour");
    }
    return vSamples;
}

// One stretch of sound that the caller should have heard.
struct SPart
{
    std::string m_strName;
    Samples m_vSamples;
};

struct SStretch
{
    std::string m_strFile;
    size_t m_nOffset;
    size_t m_nLength;
};

// FILE:OFFSET:LENGTH; nothing when strPart does not end in two numbers.
std::optional<SStretch> parseStretch(const std::string& strPart)
{
    const auto number = [](const std::string& strText, size_t& nValue) {
        const char* pEnd = strText.data() + strText.size();
        const auto [pStop, error] = std::from_chars(strText.data(), pEnd, nValue);
        return error == std::errc() && pStop == pEnd;
    };
    const size_t nSecond = strPart.rfind(':');
    if (nSecond == std::string::npos || nSecond == 0)
        return std::nullopt;
    const size_t nFirst = strPart.rfind(':', nSecond - 1);
    SStretch stretch = {};
    if (nFirst == std::string::npos || !number(strPart.substr(nFirst + 1, nSecond - nFirst - 1), stretch.m_nOffset) ||
        !number(strPart.substr(nSecond + 1), stretch.m_nLength))
        return std::nullopt;
    stretch.m_strFile = strPart.substr(0, nFirst);
    return stretch;
}

// Reads parts, each file once.
class CPartReader
{
public:
    SPart read(const std::string& strPart)
    {
        const std::optional<SStretch> stretch = parseStretch(strPart);
        if (!stretch)
        {
            std::error_code error;
            if (strPart.find(':') != std::string::npos && !std::filesystem::exists(strPart, error))
                throw CBadInput("\"" + strPart + "\": no such file, and no FILE:OFFSET:LENGTH in samples");
            return checked({strPart, sound(strPart)});
        }
        const Samples& vWhole = sound(stretch->m_strFile);
        if (stretch->m_nOffset > vWhole.size() || stretch->m_nLength > vWhole.size() - stretch->m_nOffset)
        {
            throw CBadInput("\"" + strPart + "\": reaches beyond the " + std::to_string(vWhole.size()) +
                            " samples of the file");
        }
        const auto begin = vWhole.begin() + static_cast<std::ptrdiff_t>(stretch->m_nOffset);
        return checked({strPart, Samples(begin, begin + static_cast<std::ptrdiff_t>(stretch->m_nLength))});
    }

private:
    const Samples& sound(const std::string& strFile)
    {
        const auto known = m_mapSounds.find(strFile);
        return known != m_mapSounds.end() ? known->second
                                          : m_mapSounds.emplace(strFile, readSound(strFile)).first->second;
    }

    // Silence is heard everywhere: finding it would prove nothing.
    static SPart checked(SPart part)
    {
        if (isSilent(part.m_vSamples))
            throw CBadInput("\"" + part.m_strName + "\": empty or silent, so it cannot be recognised");
        return part;
    }

    std::map<std::string, Samples> m_mapSounds;
};

struct SMatch
{
    size_t m_nAt;     // where in the text the match begins
    size_t m_nLength; // how many samples of the pattern agree there
};

// The first place of the longest beginning of vPattern in vText followed by nSilence silent samples;
// in linear time (Knuth, Morris and Pratt).
SMatch findLongest(const Samples& vPattern, const Samples& vText, size_t nSilence)
{
    std::vector<uint32_t> vBorder(vPattern.size() + 1, 0);
    for (size_t n = 1, nLength = 0; n < vPattern.size(); ++n)
    {
        while (nLength > 0 && vPattern[n] != vPattern[nLength])
            nLength = vBorder[nLength];
        nLength += vPattern[n] == vPattern[nLength] ? 1 : 0;
        vBorder[n + 1] = static_cast<uint32_t>(nLength);
    }
    SMatch best = {0, 0};
    for (size_t n = 0, nLength = 0; n < vText.size() + nSilence && best.m_nLength < vPattern.size(); ++n)
    {
        const int16_t nSample = n < vText.size() ? vText[n] : int16_t{0};
        while (nLength > 0 && nSample != vPattern[nLength])
            nLength = vBorder[nLength];
        nLength += nSample == vPattern[nLength] ? 1 : 0;
        if (nLength > best.m_nLength)
            best = {n + 1 - nLength, nLength};
    }
    return best;
}

std::string sampleText(const Samples& vSamples, size_t nAt)
{
    return nAt < vSamples.size() ? std::to_string(vSamples[nAt]) : "the end of the file";
}

void printDifference(const Samples& vHeard, const SPart& part, size_t nPart, size_t nStart, size_t nEqual)
{
    const size_t nAt = nStart + nEqual;
    std::printf("part %zu, %s, differs at its sample %zu, which is sample %zu (%.3f s) of what was heard: "
                "expected %d, found %s\n",
                nPart, part.m_strName.c_str(), nEqual, nAt, seconds(nAt), part.m_vSamples[nEqual],
                sampleText(vHeard, nAt).c_str());
    const SMatch anywhere = findLongest(part.m_vSamples, vHeard, 0);
    if (anywhere.m_nLength == part.m_vSamples.size())
    {
        std::printf("it is heard whole at sample %zu (%.3f s): out of order, or too close to its neighbour\n",
                    anywhere.m_nAt, seconds(anywhere.m_nAt));
    }
    else
    {
        std::printf("it is heard whole nowhere\n");
    }
}

int checkHeard(const std::string& strHeard, const std::vector<std::string>& vNames)
{
    CPartReader reader;
    std::vector<SPart> vParts;
    int nWidth = 4;
    for (const std::string& strName : vNames)
    {
        vParts.push_back(reader.read(strName));
        nWidth = std::max(nWidth, static_cast<int>(std::min<size_t>(strName.size(), 200)));
    }
    const Samples vHeard = readSound(strHeard);
    std::printf("heard: %s, %.3f s\n", strHeard.c_str(), seconds(vHeard.size()));
    std::printf("%4s  %-*s  %10s  %10s\n", "part", nWidth, "sound", "starts at", "lasts");

    size_t nPosition = 0;
    size_t nSpoken = 0;
    for (size_t n = 0; n < vParts.size(); ++n)
    {
        // The first loud sample heard next can only be the first loud sample of the part.
        const Samples& vPart = vParts[n].m_vSamples;
        const size_t nLead = silenceAt(vPart, 0);
        const size_t nSilence = silenceAt(vHeard, nPosition);
        const size_t nStart = nPosition + (nSilence > nLead ? nSilence - nLead : 0);
        const auto begin = vHeard.begin() + static_cast<std::ptrdiff_t>(nStart);
        const auto equalEnd = std::mismatch(vPart.begin(), vPart.end(), begin, vHeard.end()).first;
        const auto nEqual = static_cast<size_t>(equalEnd - vPart.begin());
        const bool bSame = nEqual == vPart.size();
        std::printf("%4zu  %-*s  %8.3f s  %8.3f s  %s\n", n + 1, nWidth, vParts[n].m_strName.c_str(), seconds(nStart),
                    seconds(vPart.size()), bSame ? "identical sample by sample" : "DIFFERS");
        if (!bSame)
        {
            printDifference(vHeard, vParts[n], n + 1, nStart, nEqual);
            return EXIT_DIFFERS;
        }
        nPosition = nStart + vPart.size();
        nSpoken += vPart.size();
    }

    const size_t nAfter = nPosition + silenceAt(vHeard, nPosition);
    if (nAfter < vHeard.size())
    {
        std::printf("something else is heard after the last part, at sample %zu (%.3f s): expected silence, found %d\n",
                    nAfter, seconds(nAfter), vHeard[nAfter]);
        return EXIT_DIFFERS;
    }
    std::printf("parts heard in this order: %zu; besides them only %.3f s of silence\n", vParts.size(),
                seconds(vHeard.size() - nSpoken));
    return EXIT_PROVED;
}

int checkRecorded(const std::string& strRecorded, const std::string& strCaller, size_t nAtLeastMs)
{
    const Samples vCaller = readSound(strCaller);
    if (isSilent(vCaller))
        throw CBadInput("\"" + strCaller + "\": empty or silent, so it cannot be recognised");
    const Samples vRecorded = readSound(strRecorded);
    std::printf("recorded: %s, %.3f s\n", strRecorded.c_str(), seconds(vRecorded.size()));
    std::printf("caller:   %s, %.3f s\n", strCaller.c_str(), seconds(vCaller.size()));
    if (isSilent(vRecorded))
    {
        std::printf("the recording is %s\n", vRecorded.empty() ? "empty" : "silent throughout");
        return EXIT_DIFFERS;
    }

    // What a recording holds after the end of the caller's file is silence.
    const SMatch match = findLongest(vRecorded, vCaller, vRecorded.size());
    if (match.m_nLength < vRecorded.size())
    {
        const size_t nAt = match.m_nAt + match.m_nLength;
        std::printf("the recording is not a stretch of the caller's speech: its first %zu samples are found at sample "
                    "%zu (%.3f s), then it differs at its sample %zu (%.3f s): expected %s, found %d\n",
                    match.m_nLength, match.m_nAt, seconds(match.m_nAt), match.m_nLength, seconds(match.m_nLength),
                    nAt < vCaller.size() ? sampleText(vCaller, nAt).c_str() : "silence", vRecorded[match.m_nLength]);
        return EXIT_DIFFERS;
    }
    const size_t nSpeech = std::min(vRecorded.size(), vCaller.size() - match.m_nAt);
    std::printf("the recording is the caller's speech from sample %zu (%.3f s) on: %zu samples (%.3f s), identical "
                "sample by sample; after it %.3f s of silence\n",
                match.m_nAt, seconds(match.m_nAt), nSpeech, seconds(nSpeech), seconds(vRecorded.size() - nSpeech));
    if (nSpeech * 1000 / RATE < nAtLeastMs)
    {
        std::printf("that is too short: at least %zu ms of speech were wanted\n", nAtLeastMs);
        return EXIT_DIFFERS;
    }
    return EXIT_PROVED;
}

int run(int argc, char** argv)
{
    CLI::App app("Proves by samples what a caller heard and what was recorded. "
                 "Exit status: 0 proved, 1 it differs, 2 bad arguments or files.",
                 "speech-check");
    app.require_subcommand(1);

    std::string strHeard;
    std::vector<std::string> vParts;
    CLI::App* pHeard = app.add_subcommand("heard", "HEARD is exactly the parts in this order, and silence");
    pHeard->add_option("HEARD", strHeard, "what the caller heard, mono 8000/s")->required();
    pHeard->add_option("PART", vParts, "FILE or FILE:OFFSET:LENGTH in samples; FILE.ul is raw mu-law")->required();

    std::string strRecorded;
    std::string strCaller;
    int64_t llAtLeastMs = 1;
    CLI::App* pRecorded = app.add_subcommand("recorded", "RECORDED is a stretch of CALLER, and silence after its end");
    pRecorded->add_option("RECORDED", strRecorded, "what was recorded, mono 8000/s")->required();
    pRecorded->add_option("CALLER", strCaller, "what the caller said, mono 8000/s")->required();
    pRecorded->add_option("--at-least", llAtLeastMs, "speech that must be there, in milliseconds (default 1)")
        ->check(CLI::Range(int64_t{0}, static_cast<int64_t>(MAX_SAMPLES * 1000 / RATE)));

    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == 0 ? EXIT_PROVED : EXIT_BAD_INPUT;
    }
    return *pHeard ? checkHeard(strHeard, vParts)
                   : checkRecorded(strRecorded, strCaller, static_cast<size_t>(llAtLeastMs));
}
} // namespace

int main(int argc, char** argv)
{
    try
    {
        return run(argc, argv);
    }
    catch (const std::exception& error)
    {
        std::fflush(stdout);
        std::fprintf(stderr, "speech-check: %s\n", error.what());
        return EXIT_BAD_INPUT;
    }
}
