// The subcommands phrases build, list and check of zelmedia.
#include "SampleFiles.h"
#include "ToolRun.h"

#include <gmock/gmock.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace
{
namespace fs = std::filesystem;

class PhrasesCommands : public testing::Test
{
protected:
    PhrasesCommands()
    {
        fs::create_directory("/tmp/in");
        fs::create_directory("/tmp/out");
        writeFile("/tmp/in/a.ul", m_a);
        writeFile("/tmp/in/you-have.ul", m_b);
        EXPECT_EQ(chdir("/tmp/out"), 0);
    }

    static std::vector<std::string> build(std::vector<std::string> vFiles, std::vector<std::string> vMore = {})
    {
        std::vector<std::string> vArguments = {"phrases", "build"};
        vArguments.insert(vArguments.end(), vFiles.begin(), vFiles.end());
        vArguments.insert(vArguments.end(), {"-o", "p.ul", "--index", "p.json"});
        vArguments.insert(vArguments.end(), vMore.begin(), vMore.end());
        return vArguments;
    }

    std::vector<std::string> buildBoth(std::vector<std::string> vMore = {}) const
    {
        return build({"/tmp/in/a.ul", "/tmp/in/you-have.ul"}, std::move(vMore));
    }

    static std::set<std::string> written()
    {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator("/tmp/out"))
            names.insert(entry.path().filename());
        return names;
    }

    const CSamples m_a = noise(3000, 1);
    const CSamples m_b = noise(4321, 2);
};

// One second of a tone of 400 Hz, on the first of two channels.
void writeTone(const char* pszPath, int nRate)
{
    SF_INFO info = {};
    info.samplerate = nRate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* const pFile = sf_open(pszPath, SFM_WRITE, &info);
    for (int n = 0; n < nRate; ++n)
    {
        const double adFrame[2] = {0.5 * std::sin(2 * M_PI * 400 * n / nRate), 0.0};
        sf_writef_double(pFile, adFrame, 1);
    }
    sf_close(pFile);
}

// The loudness of the tone of 400 Hz in raw µ-law, in steps of 16 bits.
double toneIn(const char* pszPath)
{
    SF_INFO info = {};
    info.samplerate = 8000;
    info.channels = 1;
    info.format = SF_FORMAT_RAW | SF_FORMAT_ULAW;
    SNDFILE* const pFile = sf_open(pszPath, SFM_READ, &info);
    std::vector<short> vSamples(static_cast<size_t>(info.frames));
    sf_read_short(pFile, vSamples.data(), info.frames);
    sf_close(pFile);
    double dSine = 0;
    double dCosine = 0;
    for (size_t n = 0; n < vSamples.size(); ++n)
    {
        dSine += vSamples[n] * std::sin(2 * M_PI * 400 * static_cast<double>(n) / 8000);
        dCosine += vSamples[n] * std::cos(2 * M_PI * 400 * static_cast<double>(n) / 8000);
    }
    return 2 * std::hypot(dSine, dCosine) / static_cast<double>(vSamples.size());
}

std::string indexWith(const std::string& strPhrases)
{
    return R"({"file": "p.ul", "rate": 8000, "phrases": )" + strPhrases + "}";
}
} // namespace

TEST_F(PhrasesCommands, BuildJoinsTheFilesAndWritesAnIndex)
{
    CToolRun run(buildBoth());
    EXPECT_EQ(run.waitExit(), 0) << run.errors();
    EXPECT_EQ(run.output(), "p.ul: 2 phrases, 0.915 s\n");
    EXPECT_TRUE(readFile("p.ul") == m_a + m_b);
    EXPECT_EQ(nlohmann::json::parse(readFile("p.json")),
              nlohmann::json::parse(R"({"file": "p.ul", "rate": 8000, "phrases": {
                  "a": {"offset": 0, "length": 3000}, "you-have": {"offset": 3000, "length": 4321}}})"));
    EXPECT_EQ(written(), (std::set<std::string>{"p.json", "p.ul"}));
}

TEST_F(PhrasesCommands, BuildNamesTheFileFromTheFolderOfTheIndex)
{
    fs::create_directory("/tmp/out/sub");
    EXPECT_EQ(CToolRun({"phrases", "build", "/tmp/in/a.ul", "-o", "p.ul", "--index", "sub/p.json"}).waitExit(), 0);
    EXPECT_EQ(nlohmann::json::parse(readFile("sub/p.json")).at("file"), "../p.ul");
    EXPECT_EQ(CToolRun({"phrases", "check", "sub/p.json"}).waitExit(), 0);
}

TEST_F(PhrasesCommands, BuildAnswersInJson)
{
    CToolRun run(buildBoth({"--json"}));
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_EQ(run.json(),
              nlohmann::json(
                  {{"file", "p.ul"}, {"index", "p.json"}, {"header", nullptr}, {"phrases", 2}, {"samples", 7321}}));
}

TEST_F(PhrasesCommands, BuildMixesAndResamples)
{
    writeTone("/tmp/in/tone.wav", 16000);
    EXPECT_EQ(CToolRun(build({"/tmp/in/tone.wav"})).waitExit(), 0);
    EXPECT_NEAR(static_cast<double>(fs::file_size("p.ul")), 8000.0, 64.0);
    // Half of full scale on one of two channels.
    EXPECT_NEAR(toneIn("p.ul"), 8192.0, 200.0);
}

TEST_F(PhrasesCommands, BuildRefusesTwoFilesOfOneName)
{
    fs::create_directory("/tmp/in/more");
    writeFile("/tmp/in/more/a.ul", m_b);
    CToolRun run(build({"/tmp/in/a.ul", "/tmp/in/more/a.ul"}));
    EXPECT_EQ(run.waitExit(), 2);
    EXPECT_THAT(run.errors(), HasSubstr("/tmp/in/more/a.ul: there is another phrase a"));
    EXPECT_EQ(written(), std::set<std::string>());
}

TEST_F(PhrasesCommands, BuildThatFailsLeavesWhatWasThere)
{
    writeFile("p.ul", "old");
    writeFile("p.json", "older");
    writeFile("/tmp/in/text.wav", "This is no audio.");
    writeFile("/tmp/in/empty.ul", "");
    for (const char* const pszFile : {"/tmp/in/text.wav", "/tmp/in/empty.ul", "/tmp/in/none.wav", "/tmp/in"})
    {
        CToolRun run(build({"/tmp/in/a.ul", pszFile}));
        EXPECT_EQ(run.waitExit(), 2) << pszFile;
        EXPECT_THAT(run.errors(), StartsWith(std::string("zelmedia: ") + pszFile + ": "));
    }
    EXPECT_EQ(readFile("p.ul"), "old");
    EXPECT_EQ(readFile("p.json"), "older");
    EXPECT_EQ(written(), (std::set<std::string>{"p.json", "p.ul"}));
}

TEST_F(PhrasesCommands, BuildThatCannotWriteLeavesNothing)
{
    CToolRun run({"phrases", "build", "/tmp/in/a.ul", "-o", "p.ul", "--index", "none/p.json"});
    EXPECT_EQ(run.waitExit(), 1);
    EXPECT_THAT(run.errors(), HasSubstr("none/p.json: No such file or directory"));
    EXPECT_EQ(written(), std::set<std::string>());
}

TEST_F(PhrasesCommands, BuildLeavesTheRightsToTheUmask)
{
    umask(027);
    ASSERT_EQ(CToolRun(buildBoth()).waitExit(), 0);
    EXPECT_EQ(static_cast<int>(fs::status("p.ul").permissions()), 0640);
}

TEST_F(PhrasesCommands, BuildDoesNotWriteOverWhatItReadsOrIsNoFile)
{
    writeFile("p.ul", "old");
    EXPECT_EQ(CToolRun(build({"/tmp/in/a.ul", "../out/p.ul"})).waitExit(), 2);
    EXPECT_EQ(readFile("p.ul"), "old");
    EXPECT_EQ(CToolRun({"phrases", "build", "/tmp/in/a.ul", "-o", "q.ul", "--index", "q.ul"}).waitExit(), 2);
    EXPECT_EQ(CToolRun({"phrases", "build", "/tmp/in/a.ul", "-o", "q.ul", "--index", "/dev/null"}).waitExit(), 2);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    EXPECT_EQ(written(), std::set<std::string>{"p.ul"});
}

TEST_F(PhrasesCommands, BuildWantsANameThatTheDriverTakesForSamples)
{
    CToolRun run({"phrases", "build", "/tmp/in/a.ul", "-o", "p.wav", "--index", "p.json"});
    EXPECT_EQ(run.waitExit(), 2);
    EXPECT_THAT(run.errors(), HasSubstr("p.wav: the name of a phrase file ends in .ul"));
}

TEST_F(PhrasesCommands, BuildWritesAHeaderForCpp11)
{
    CToolRun run(buildBoth({"--header", "new.h"}));
    EXPECT_EQ(run.waitExit(), 0) << run.errors();
    writeFile("/tmp/use.cpp", R"(#include "/tmp/out/new.h"
        #include "/tmp/out/new.h"
        static_assert(New::PHRASE_A.m_ulOffset == 0 && New::PHRASE_A.m_ulLength == 3000, "");
        static_assert(New::PHRASE_YOU_HAVE.m_ulOffset == 3000 && New::PHRASE_YOU_HAVE.m_ulLength == 4321, "");
        static_assert(sizeof(New::PHRASE_FILE) == sizeof("p.ul"), "");)");
    EXPECT_EQ(std::system("c++ -std=c++11 -Wall -Wextra -pedantic -Werror -fsyntax-only /tmp/use.cpp"), 0);
}

TEST_F(PhrasesCommands, BuildRefusesAHeaderInWhichTwoPhrasesHaveOneName)
{
    writeFile("/tmp/in/you_have.ul", m_a);
    CToolRun run(buildBoth({"/tmp/in/you_have.ul", "--header", "p.h"}));
    EXPECT_EQ(run.waitExit(), 2);
    EXPECT_THAT(run.errors(), HasSubstr("PHRASE_YOU_HAVE"));
    EXPECT_EQ(written(), std::set<std::string>());
}

TEST_F(PhrasesCommands, ListShowsThePhrasesInTheirOrder)
{
    writeFile("p.json",
              indexWith(R"({"first": {"offset": 400, "length": 8000}, "again": {"offset": 8400, "length": 4}})"));
    CToolRun run({"phrases", "list", "p.json"});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_EQ(run.output(), "   start s   length s  name\n"
                            "     0.050      1.000  first\n"
                            "     1.050      0.001  again\n");
    CToolRun json({"phrases", "list", "p.json", "--json"});
    EXPECT_EQ(json.waitExit(), 0);
    EXPECT_EQ(
        json.json().at("phrases").at(0),
        nlohmann::json({{"name", "first"}, {"offset", 400}, {"length", 8000}, {"start_s", 0.05}, {"length_s", 1.0}}));
}

TEST_F(PhrasesCommands, CheckOfWhatWasBuiltIsWell)
{
    ASSERT_EQ(CToolRun(buildBoth()).waitExit(), 0);
    CToolRun run({"phrases", "check", "p.json"});
    EXPECT_EQ(run.waitExit(), 0);
    EXPECT_EQ(run.output(), "p.json: 2 phrases, all well\n");
    CToolRun json({"phrases", "check", "p.json", "--json"});
    EXPECT_EQ(json.waitExit(), 0);
    EXPECT_EQ(json.json(), nlohmann::json::parse(R"({"ok": true, "problems": []})"));
}

TEST_F(PhrasesCommands, CheckListsEveryProblem)
{
    writeFile("p.ul", m_a);
    writeFile("p.json", indexWith(R"({"one": {"offset": 0, "length": 2000}, "two": {"offset": 1999, "length": 10},
        "end": {"offset": 2990, "length": 11}, "none": {"offset": 2500, "length": 0},
        "minus": {"offset": -1, "length": 5}, "huge": {"offset": 4294967296, "length": 5},
        "text": {"offset": 0, "length": "5"}, "part": {"offset": 0}, "half": {"offset": 0.5, "length": 5}, "": {},
        "a\u0007": {"offset": 0, "length": 1}, "list": [], "one": {"offset": 0, "length": 2000}})"));
    CToolRun run({"phrases", "check", "p.json", "--json"});
    EXPECT_EQ(run.waitExit(), 1);
    EXPECT_EQ(run.json().at("ok"), false);
    EXPECT_THAT(
        run.json().at("problems").get<std::vector<std::string>>(),
        testing::UnorderedElementsAre(
            "\"one\" is there twice", "phrase two: it overlaps one", "phrase end: it ends at 3001, and p.ul at 3000",
            "phrase none: it has no samples", "phrase \"minus\": offset is no number of samples",
            "phrase \"huge\": offset is no number of samples", "phrase \"text\": length is no number of samples",
            "phrase \"part\": length is no number of samples", "phrase \"half\": offset is no number of samples",
            "phrase \"\": its name is empty", "phrase \"a\\u0007\": there are control characters in its name",
            "phrase \"list\": offset is no number of samples"));
}

TEST_F(PhrasesCommands, CheckMissesTheFile)
{
    writeFile("p.json", indexWith("{}"));
    CToolRun run({"phrases", "check", "p.json"});
    EXPECT_EQ(run.waitExit(), 1);
    EXPECT_EQ(run.output(), "p.json: p.ul: No such file or directory\n");
}

TEST_F(PhrasesCommands, NoIndexCrashesOrHangs)
{
    const std::string strDeep(1000000, '[');
    const char* const apszTexts[] = {"",
                                     "{",
                                     "[]",
                                     "null",
                                     "{}",
                                     "\"p.ul\"",
                                     "\xFF\xFE",
                                     R"({"phrases": 1e9999})",
                                     R"({"file": "\u0000", "rate": 8000, "phrases": {}})",
                                     R"({"file": 5, "rate": 8000, "phrases": {}})",
                                     R"({"file": "p.ul", "rate": "8000", "phrases": {}})",
                                     R"({"file": "p.ul", "rate": 16000, "phrases": {}})",
                                     R"({"file": "p.ul", "rate": 8000, "phrases": []})",
                                     R"({"file": "p.ul", "rate": 8000, "phrases": {"a": {"offset": 1)",
                                     strDeep.c_str()};
    for (const char* const pszText : apszTexts)
    {
        writeFile("p.json", pszText);
        for (const char* const pszCommand : {"list", "check"})
        {
            CToolRun run({"phrases", pszCommand, "p.json"});
            EXPECT_EQ(run.waitExit(), *pszCommand == 'l' ? 2 : 1) << std::string(pszText).substr(0, 80);
            EXPECT_THAT(run.output() + run.errors(), HasSubstr("p.json: "));
        }
    }
}

TEST_F(PhrasesCommands, WhatIsNoFileIsNoIndex)
{
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    for (const char* const pszPath : {"fifo", "/tmp", "none.json"})
    {
        CToolRun run({"phrases", "check", pszPath});
        EXPECT_EQ(run.waitExit(), 2) << pszPath;
        EXPECT_THAT(run.errors(), AllOf(HasSubstr(pszPath), Not(HasSubstr("JSON"))));
    }
}
