// An application that forks and starts programs while it uses the library.
#include "InChild.h"
#include "Machine.h"

#include <csignal>
#include <spawn.h>

namespace
{
// How a child process ends that uses nothing.
enum class End
{
    Exit,      // with everything that a program does at its end
    QuickExit, // with nothing of it
    Program,
    Killed
};
const char* const END_NAMES[] = {"Exit", "QuickExit", "Program", "Killed"};

void PrintTo(End end, std::ostream* pStream)
{
    *pStream << END_NAMES[static_cast<int>(end)];
}

[[noreturn]] void endAs(End end)
{
    switch (end)
    {
    case End::Exit:
#if defined(ZELMEDIA_ASAN) || defined(ZELMEDIA_TSAN)
        _exit(0); // what other threads of the parent own would count as leaks
#else
        exit(0);
#endif
    case End::Program: execl("/bin/true", "true", nullptr); _exit(1);
    case End::Killed: raise(SIGKILL); _exit(1);
    default: _exit(0);
    }
}

void expectChildEnds(End end)
{
    EXPECT_EQ(end == End::Killed ? SIGKILL : 0, inChild([end] { endAs(end); }));
}

class ForkingProcess : public CSystemTest, public testing::WithParamInterface<End>
{
protected:
    ForkingProcess()
    {
        m_driver.onCommand(
            MICMD_PLAYFILE,
            [this](const structMICMD& request) {
                m_driver.accept(request);
                m_driver.done(request);
            });
    }
};
} // namespace

TEST_P(ForkingProcess, KeepsItsPipesAndItsLogWhenAChildEnds)
{
    const ino_t nResponse = inodeOf(responsePipe());
    const ino_t nEvent = inodeOf(eventPipe());
    expectChildEnds(GetParam());
    EXPECT_EQ(nResponse, inodeOf(responsePipe()));
    EXPECT_EQ(nEvent, inodeOf(eventPipe()));
    EXPECT_EQ(0u, m_driver.count(MICMD_DISCONNECT));
    EXPECT_EQ(MCS_OK, play(open(), "/p/1.wav"));
    EXPECT_TRUE(m_completions.waitCount(1));
}

TEST_P(ForkingProcess, WorksOnWhileItsThreadsUseTheLibrary)
{
    std::atomic<bool> bStop{false};
    std::atomic<size_t> nPlays{0};
    std::vector<std::thread> vThreads;
    for (int nThread = 0; nThread < 3; ++nThread)
    {
        CZelMediaStream* const pStream = open("call-" + std::to_string(nThread));
        vThreads.emplace_back([&, pStream] {
            unsigned long ulMilliSeconds = 0;
            while (!bStop)
            {
                EXPECT_EQ(MCS_OK, play(pStream, "/p/1.wav"));
                EXPECT_EQ(MCS_OK, pStream->recordGetTimeMilliseconds(&ulMilliSeconds));
                ++nPlays;
                std::this_thread::sleep_for(std::chrono::milliseconds(1)); // what the log keeps makes forks slow
            }
        });
    }
    for (int nChildren = 0; nChildren < setting("ZELMEDIA_RUNS", 20); ++nChildren)
    {
        const size_t nBefore = nPlays;
        expectChildEnds(GetParam());
        EXPECT_TRUE(waitUntil([&] { return nPlays > nBefore; }));
    }
    bStop = true;
    for (std::thread& thread : vThreads)
        thread.join();
    EXPECT_TRUE(m_completions.waitCount(nPlays));
    EXPECT_EQ(nPlays, m_completions.count());
    EXPECT_EQ(0u, m_pLog->count("(Error)"));
    EXPECT_EQ(1u, m_driver.count(MICMD_CONNECT));
}

INSTANTIATE_TEST_SUITE_P(ChildOf, ForkingProcess, testing::Values(End::Exit, End::QuickExit, End::Program, End::Killed),
                         [](const auto& end) { return END_NAMES[static_cast<int>(end.param)]; });

namespace
{
class StartedProgram : public CSystemTest
{
};
} // namespace

TEST_F(StartedProgram, OfACompletionHandlerHasNoDescriptorOfTheLibrary)
{
    int nStatus = -1;
    m_completions.m_onCompletion = [&](const CCompletion&) {
        char szShell[] = "sh";
        char szOption[] = "-c";
        char szScript[] = "ls -l /proc/self/fd > /tmp/descriptors";
        char* const apszWords[] = {szShell, szOption, szScript, nullptr};
        pid_t nChild = -1;
        EXPECT_EQ(0, posix_spawn(&nChild, "/bin/sh", nullptr, nullptr, apszWords, environ));
        EXPECT_EQ(nChild, waitpid(nChild, &nStatus, 0));
    };
    EXPECT_EQ(MCS_OK, play(open(), "/p/1.wav"));
    m_driver.done(m_driver.waitRequest(MICMD_PLAYFILE));
    ASSERT_TRUE(m_completions.waitCount(1));
    EXPECT_EQ(0, nStatus);
    const std::string strList = contentOf("/tmp/descriptors");
    EXPECT_NE(std::string::npos, strList.find("/tmp/descriptors")) << strList;
    EXPECT_EQ(std::string::npos, strList.find("OrvMediaIntf")) << strList;
    EXPECT_EQ(std::string::npos, strList.find("Media-p")) << strList;
}
