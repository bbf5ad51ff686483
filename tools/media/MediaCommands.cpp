// The subcommands play, record, phrase play of zelmedia.
#include "media/MediaCommands.h"

#include "base/Tool.h"
#include "media/MediaSession.h"
#include "media/Player.h"
#include "media/Recorder.h"
#include "phrases/AudioFile.h"
#include "phrases/PhraseIndex.h"

#include <filesystem>
#include <memory>
#include <unistd.h>

namespace
{
constexpr std::chrono::seconds DEFAULT_MAX(30);

struct CMediaOptions
{
    CChannelOptions m_channel;
    std::vector<std::string> m_vNames; // of files or phrases
    CMilliseconds m_from{0};
    std::optional<std::chrono::seconds> m_timeout;
    std::optional<std::chrono::seconds> m_max;
    std::string m_strPrompt; // empty: none
    std::string m_strIndex;
};

// Why the driver may refuse it. The driver may see other files than this process, so it is asked all the same.
std::string remarkOn(const std::string& strPath, std::optional<CMilliseconds> total, CMilliseconds from)
{
    if (access(strPath.c_str(), F_OK) != 0)
        return "here there is no such file either";
    return total && from >= *total ? "it has only " + secondsText(*total) + " s" : "";
}

CPlayItem fileItem(const CMediaOptions& options, const std::string& strName, CMilliseconds from)
{
    CPlayItem item;
    item.m_strName = strName;
    std::string strError;
    if (const auto samples = samplesIn(strName, strError))
        item.m_total = durationOfSamples(*samples);
    item.m_from = from;
    item.m_strRemark = remarkOn(strName, item.m_total, from);
    item.m_queue = [strPath = driverPath(strName), from,
                    ulTimeout = playTimeout(options.m_timeout, item.m_total)](CZelMediaStream& stream) mutable {
        return stream.playAddFile(strPath.data(), static_cast<unsigned long>(from.count()), ulTimeout, 0, 1, 0);
    };
    return item;
}

int play(const CTool& tool, const CMediaOptions& options)
{
    std::vector<CPlayItem> vItems;
    for (const std::string& strName : options.m_vNames)
        vItems.push_back(fileItem(options, strName, vItems.empty() ? options.m_from : CMilliseconds(0)));
    CMediaSession session(options.m_channel);
    return CPlayer(session, vItems, tool.isJson()).run();
}

const CPhrase& phraseIn(const CPhraseIndex& index, const std::string& strName, const std::string& strIndex)
{
    if (const CPhrase* const pPhrase = index.find(strName))
        return *pPhrase;
    throw CToolError(EXIT_CODE_USAGE, strIndex + ": there is no phrase " + strName);
}

int playPhrases(const CTool& tool, const CMediaOptions& options)
{
    const CPhraseIndex index = readPhraseIndex(options.m_strIndex);
    std::vector<CPlayItem> vItems;
    unsigned long ulFileID = 0;
    for (const std::string& strName : options.m_vNames)
    {
        const CPhrase& phrase = phraseIn(index, strName, options.m_strIndex);
        CPlayItem item;
        item.m_strName = strName;
        item.m_total = durationOfSamples(phrase.m_nLength);
        item.m_queue = [&ulFileID, &phrase,
                        ulTimeout = playTimeout(options.m_timeout, item.m_total)](CZelMediaStream& stream) {
            return stream.playAddPhrase(ulFileID, phrase.m_nOffset, phrase.m_nLength, ulTimeout, 0, 0);
        };
        vItems.push_back(item);
    }
    CMediaSession session(options.m_channel);
    ulFileID = session.openPhraseFile(index.m_strFile);
    return CPlayer(session, vItems, tool.isJson()).run();
}

int record(const CTool& tool, const CMediaOptions& options)
{
    const std::string strFile = driverPath(options.m_vNames.front());
    const std::chrono::seconds max = options.m_max.value_or(DEFAULT_MAX);
    CPhraseIndex index;
    CRecordPrompt prompt;
    if (!options.m_strPrompt.empty())
    {
        index = readPhraseIndex(options.m_strIndex);
        const CPhrase& phrase = phraseIn(index, options.m_strPrompt, options.m_strIndex);
        prompt = {phrase.m_strName, 0, phrase.m_nOffset, phrase.m_nLength};
    }
    CMediaSession session(options.m_channel);
    CRecorder recorder(session, strFile, max, tool.isJson());
    if (options.m_strPrompt.empty())
        return recorder.recordAtOnce();
    prompt.m_ulFileID = session.openPhraseFile(index.m_strFile);
    return recorder.recordBehind(prompt);
}

CLI::Option* addIndex(CLI::App& app, CMediaOptions& options)
{
    return app.add_option("--phrases", options.m_strIndex, "The index that 'zelmedia phrases build' made")
        ->type_name("INDEX");
}

void addTimeout(CLI::App& app, CMediaOptions& options)
{
    addSeconds(app, "--timeout", options.m_timeout,
               "When to give up one that does not end; without it a minute after its length, or 300s");
}

void addPlay(CTool& tool)
{
    const auto pOptions = std::make_shared<CMediaOptions>();
    CLI::App* const pCommand = tool.addCommand(tool.app(), "play", "Play audio files on a call, one after the other",
                                               "  zelmedia play greeting.wav menu.wav --call 1001\n"
                                               "  zelmedia play music.wav --call 1001 --leg 2 --from 1.5s\n"
                                               "      Ctrl-C ends it",
                                               [&tool, pOptions] { return play(tool, *pOptions); });
    pCommand->add_option("files", pOptions->m_vNames, "The files, as the media driver sees them")
        ->type_name("FILE")
        ->required();
    pOptions->m_channel.addTo(*pCommand);
    addDuration(*pCommand, "--from", pOptions->m_from, "Where to begin in the first file");
    addTimeout(*pCommand, *pOptions);
}

void addRecord(CTool& tool)
{
    const auto pOptions = std::make_shared<CMediaOptions>();
    CLI::App* const pCommand =
        tool.addCommand(tool.app(), "record", "Record a call into a file",
                        "  zelmedia record message.wav --call 1001 --max 20s\n"
                        "  zelmedia record message.wav --call 1001 --prompt leave-a-message --phrases prompts.json\n"
                        "      Ctrl-C ends it; what was recorded stays",
                        [&tool, pOptions] { return record(tool, *pOptions); });
    pOptions->m_vNames.emplace_back();
    pCommand->add_option("file", pOptions->m_vNames.front(), "The file; its ending says the format, as the driver does")
        ->type_name("FILE")
        ->required();
    pOptions->m_channel.addTo(*pCommand);
    addSeconds(*pCommand, "--max", pOptions->m_max, "When it ends at the latest; without it 30s");
    CLI::Option* const pIndex = addIndex(*pCommand, *pOptions);
    pCommand->add_option("--prompt", pOptions->m_strPrompt, "The phrase to play before")
        ->type_name("PHRASE")
        ->needs(pIndex);
}

void addPhrasePlay(CTool& tool)
{
    const auto pOptions = std::make_shared<CMediaOptions>();
    CLI::App* const pPhrase = tool.app().add_subcommand("phrase", "Use the phrases of a phrase file");
    pPhrase->require_subcommand(1);
    CLI::App* const pCommand =
        tool.addCommand(*pPhrase, "play", "Play phrases on a call, one after the other",
                        "  zelmedia phrase play you-have two-new-messages --call 1001 --phrases prompts.json",
                        [&tool, pOptions] { return playPhrases(tool, *pOptions); });
    pCommand->add_option("names", pOptions->m_vNames, "The phrases")->type_name("NAME")->required();
    pOptions->m_channel.addTo(*pCommand);
    addIndex(*pCommand, *pOptions)->required();
    addTimeout(*pCommand, *pOptions);
}
} // namespace

void addMediaCommands(CTool& tool)
{
    addPlay(tool);
    addRecord(tool);
    addPhrasePlay(tool);
}
