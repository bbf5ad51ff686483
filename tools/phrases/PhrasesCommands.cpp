// The subcommands phrases build, list, check of zelmedia.
#include "phrases/PhrasesCommands.h"

#include "base/NewFile.h"
#include "base/Tool.h"
#include "phrases/AudioFile.h"
#include "phrases/PhraseHeader.h"
#include "phrases/PhraseIndex.h"

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

namespace
{
namespace fs = std::filesystem;

struct CBuildOptions
{
    std::vector<std::string> m_vFiles;
    std::string m_strOutput;
    std::string m_strIndex;
    std::string m_strHeader; // empty: none
};

bool isSameFile(const std::string& strLeft, const std::string& strRight)
{
    std::error_code error;
    return fs::equivalent(strLeft, strRight, error) || fs::weakly_canonical(strLeft) == fs::weakly_canonical(strRight);
}

void checkNames(const CBuildOptions& options)
{
    if (!isRawULawName(options.m_strOutput))
        throw CToolError(EXIT_CODE_USAGE, options.m_strOutput + ": the name of a phrase file ends in .ul");
    std::vector<std::string> vNames = {options.m_strOutput, options.m_strIndex};
    if (!options.m_strHeader.empty())
        vNames.push_back(options.m_strHeader);
    const size_t nOutputs = vNames.size();
    vNames.insert(vNames.end(), options.m_vFiles.begin(), options.m_vFiles.end());
    for (size_t nOutput = 0; nOutput < nOutputs; ++nOutput)
    {
        for (size_t nOther = nOutput + 1; nOther < vNames.size(); ++nOther)
            if (isSameFile(vNames[nOutput], vNames[nOther]))
                throw CToolError(EXIT_CODE_USAGE, vNames[nOutput] + ": it is to be written, and is named twice");
    }
}

// The file as the index names it: from the folder of the index.
std::string fileInIndex(const CBuildOptions& options)
{
    const fs::path folder = fs::absolute(options.m_strIndex).lexically_normal().parent_path();
    std::string strFile = fs::absolute(options.m_strOutput).lexically_normal().lexically_relative(folder);
    const std::string strProblem = problemOfName(strFile);
    if (!strProblem.empty())
        throw CToolError(EXIT_CODE_USAGE, options.m_strOutput + ": " + strProblem);
    return strFile;
}

void addPhrase(const std::string& strFile, CPhraseIndex& index, std::string& strClip)
{
    const std::string strName = fs::path(strFile).stem().string();
    const std::string strProblem = problemOfName(strName);
    if (!strProblem.empty())
        throw CToolError(EXIT_CODE_USAGE, strFile + ": " + strProblem);
    if (index.find(strName))
        throw CToolError(EXIT_CODE_USAGE, strFile + ": there is another phrase " + strName);
    const std::vector<uint8_t> vSamples = readSamples(strFile);
    if (strClip.size() + vSamples.size() > MAX_PHRASE_FILE_SAMPLES)
        throw CToolError(EXIT_CODE_FAILED, strFile + ": with it the phrase file is longer than two hours");
    index.m_vPhrases.push_back(
        {strName, static_cast<uint32_t>(strClip.size()), static_cast<uint32_t>(vSamples.size())});
    strClip.append(vSamples.begin(), vSamples.end());
}

// An interrupt waits meanwhile, so that it leaves no temporary file.
void writeAll(const CBuildOptions& options, const std::string& strClip, const std::string& strIndex,
              const std::string& strHeader)
{
    sigset_t interrupts;
    sigemptyset(&interrupts);
    for (const int nSignal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&interrupts, nSignal);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &interrupts, &before);
    const std::shared_ptr<void> restore(nullptr, [&](void*) { pthread_sigmask(SIG_SETMASK, &before, nullptr); });
    CNewFile clip(options.m_strOutput, strClip);
    CNewFile index(options.m_strIndex, strIndex);
    std::optional<CNewFile> header;
    if (!options.m_strHeader.empty())
        header.emplace(options.m_strHeader, strHeader);
    clip.putInPlace();
    index.putInPlace();
    if (header)
        header->putInPlace();
}

int build(const CTool& tool, const CBuildOptions& options)
{
    checkNames(options);
    CPhraseIndex index;
    index.m_strFile = fileInIndex(options);
    std::string strClip;
    for (const std::string& strFile : options.m_vFiles)
        addPhrase(strFile, index, strClip);
    writeAll(options, strClip, phraseIndexText(index),
             options.m_strHeader.empty() ? "" : phraseHeaderText(index, options.m_strHeader));

    if (tool.isJson())
        printJson({{"file", options.m_strOutput},
                   {"index", options.m_strIndex},
                   {"header", options.m_strHeader.empty() ? nlohmann::json() : nlohmann::json(options.m_strHeader)},
                   {"phrases", index.m_vPhrases.size()},
                   {"samples", strClip.size()}});
    else
        printLine(options.m_strOutput + ": " + std::to_string(index.m_vPhrases.size()) + " phrases, " +
                  secondsText(durationOfSamples(strClip.size())) + " s");
    return EXIT_CODE_OK;
}

double secondsOf(uint32_t nSamples)
{
    return nSamples / 8000.0;
}

int list(const CTool& tool, const std::string& strIndex)
{
    const CPhraseIndex index = readPhraseIndex(strIndex);
    if (tool.isJson())
    {
        nlohmann::json phrases = nlohmann::json::array();
        for (const CPhrase& phrase : index.m_vPhrases)
            phrases.push_back({{"name", phrase.m_strName},
                               {"offset", phrase.m_nOffset},
                               {"length", phrase.m_nLength},
                               {"start_s", secondsOf(phrase.m_nOffset)},
                               {"length_s", secondsOf(phrase.m_nLength)}});
        printJson({{"file", index.m_strFile}, {"phrases", phrases}});
        return EXIT_CODE_OK;
    }
    printLine("   start s   length s  name");
    for (const CPhrase& phrase : index.m_vPhrases)
    {
        printLine(fmt::format("{:10.3f} {:10.3f}  {}", secondsOf(phrase.m_nOffset), secondsOf(phrase.m_nLength),
                              phrase.m_strName));
    }
    return EXIT_CODE_OK;
}

void checkPlaces(const CPhraseIndex& index, std::vector<std::string>& vProblems)
{
    std::string strError;
    const std::optional<uint64_t> samples = samplesIn(index.m_strFile, strError);
    if (!samples)
        vProblems.push_back(index.m_strFile + ": " + strError);
    uint64_t ullEnd = 0;
    const CPhrase* pBefore = nullptr; // the one that reaches farthest
    for (const CPhrase& phrase : index.m_vPhrases)
    {
        const uint64_t ullPhraseEnd = uint64_t{phrase.m_nOffset} + phrase.m_nLength;
        if (phrase.m_nLength == 0)
            vProblems.push_back("phrase " + phrase.m_strName + ": it has no samples");
        if (samples && ullPhraseEnd > *samples)
            vProblems.push_back("phrase " + phrase.m_strName + ": it ends at " + std::to_string(ullPhraseEnd) +
                                ", and " + index.m_strFile + " at " + std::to_string(*samples));
        if (pBefore && phrase.m_nOffset < ullEnd)
            vProblems.push_back("phrase " + phrase.m_strName + ": it overlaps " + pBefore->m_strName);
        if (ullPhraseEnd > ullEnd)
        {
            ullEnd = ullPhraseEnd;
            pBefore = &phrase;
        }
    }
}

int check(const CTool& tool, const std::string& strIndex)
{
    std::vector<std::string> vProblems;
    const CPhraseIndex index = readPhraseIndex(strIndex, vProblems);
    if (!index.m_strFile.empty())
        checkPlaces(index, vProblems);
    if (tool.isJson())
        printJson({{"ok", vProblems.empty()}, {"problems", vProblems}});
    else if (vProblems.empty())
        printLine(strIndex + ": " + std::to_string(index.m_vPhrases.size()) + " phrases, all well");
    for (const std::string& strProblem : vProblems)
        if (!tool.isJson())
            printLine(std::string(strIndex).append(": ").append(strProblem));
    return vProblems.empty() ? EXIT_CODE_OK : EXIT_CODE_FAILED;
}
} // namespace

void addPhrasesCommands(CTool& tool)
{
    CLI::App* const pPhrases = tool.app().add_subcommand("phrases", "Make phrase files and look at them");
    pPhrases->require_subcommand(1);

    const auto pBuild = std::make_shared<CBuildOptions>();
    CLI::App* pCommand =
        tool.addCommand(*pPhrases, "build", "Join audio files into one phrase file with an index of names",
                        "  zelmedia phrases build prompts/*.wav -o prompts.ul --index prompts.json\n"
                        "      greeting.wav becomes the phrase greeting; the files may have any rate and format\n"
                        "  zelmedia phrases build prompts/*.wav -o prompts.ul --index prompts.json --header prompts.h\n"
                        "      and the constants Prompts::PHRASE_GREETING.m_ulOffset and so on for an application",
                        [&tool, pBuild] { return build(tool, *pBuild); });
    pCommand->add_option("files", pBuild->m_vFiles, "The audio files, in the order that they are to have")
        ->type_name("FILE")
        ->required();
    pCommand->add_option("-o,--output", pBuild->m_strOutput, "The phrase file; its name ends in .ul")
        ->type_name("FILE")
        ->required();
    pCommand->add_option("--index", pBuild->m_strIndex, "The index, in JSON")->type_name("FILE")->required();
    pCommand->add_option("--header", pBuild->m_strHeader, "A C++ header with the same")->type_name("FILE");

    const auto pIndex = std::make_shared<std::string>();
    pCommand = tool.addCommand(*pPhrases, "list", "List the phrases of an index",
                               "  zelmedia phrases list prompts.json\n"
                               "  zelmedia phrases list prompts.json --json | jq '.phrases[].name'",
                               [&tool, pIndex] { return list(tool, *pIndex); });
    pCommand->add_option("index", *pIndex, "The index")->type_name("INDEX")->required();

    pCommand =
        tool.addCommand(*pPhrases, "check", "Check an index and its phrase file; exit code 1 if they are wrong",
                        "  zelmedia phrases check prompts.json", [&tool, pIndex] { return check(tool, *pIndex); });
    pCommand->add_option("index", *pIndex, "The index")->type_name("INDEX")->required();
}
