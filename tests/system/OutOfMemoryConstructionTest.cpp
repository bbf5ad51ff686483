// Every allocation of the first services object of a process fails in turn.
#include "FailingAllocations.h"
#include "OrvException.h"
#include "ServicesFixture.h"

#include <cstdio>
#include <cstring>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
const char SOURCE_PATH[] = "ZelMediaServices/Library-Linux/ZelMediaServicesImpl";

// How a construction ended, as a child process tells it.
struct COutcome
{
    char szEnd[300]; // "made", "int 0", "OrvException 8007000E <location>", "something else"
    bool bFailed;    // an allocation did fail
    int nOpenStatus; // of an open with the object, or with the next one if there is none
};

std::string construct(std::optional<CZelMediaServices>& services)
{
    try
    {
        services.emplace(nullptr);
        return "made";
    }
    catch (int n)
    {
        CAllocationsSpared spared;
        return std::string("int ").append(std::to_string(n));
    }
    catch (const OrvException& exception)
    {
        CAllocationsSpared spared;
        char szText[300];
        snprintf(szText, sizeof(szText), "OrvException %08X %s", exception.code(), exception.location());
        return szText;
    }
    catch (...)
    {
        CAllocationsSpared spared;
        return "something else";
    }
}

COutcome constructWith(int nth, Failing failing, bool bSecond)
{
    COutcome outcome = {};
    std::optional<CZelMediaServices> first;
    if (bSecond)
        first.emplace(nullptr);
    std::optional<CZelMediaServices> services;
    {
        CAllocationFailure failure(nth, failing);
        const std::string strEnd = construct(services);
        snprintf(outcome.szEnd, sizeof(outcome.szEnd), "%s", strEnd.c_str());
    }
    outcome.bFailed = CAllocationFailure::happened();
    if (!services)
        construct(services);
    CZelMediaStream* pStream = nullptr;
    outcome.nOpenStatus = services ? services->openMediaStream(&pStream, "call-1", 1) : -1;
    return outcome;
}

// The driver interface is made once per process, so each attempt has a process of its own.
COutcome constructInChild(int nth, Failing failing, bool bSecond)
{
    int anPipe[2];
    EXPECT_EQ(0, pipe(anPipe));
    const pid_t nChild = fork();
    if (nChild == 0)
    {
        const COutcome outcome = constructWith(nth, failing, bSecond);
        const bool bTold = write(anPipe[1], &outcome, sizeof(outcome)) == static_cast<ssize_t>(sizeof(outcome));
        exit(bTold ? 0 : 1); // with what a sanitizer does at the end of a process
    }
    close(anPipe[1]);
    COutcome outcome = {};
    EXPECT_EQ(static_cast<ssize_t>(sizeof(outcome)), read(anPipe[0], &outcome, sizeof(outcome)));
    close(anPipe[0]);
    int nStatus = -1;
    EXPECT_EQ(nChild, waitpid(nChild, &nStatus, 0));
    EXPECT_TRUE(WIFEXITED(nStatus)) << "killed at allocation " << nth;
    EXPECT_EQ(0, WEXITSTATUS(nStatus)) << "at allocation " << nth;
    EXPECT_EQ(MCS_NOTCONNECTED, outcome.nOpenStatus) << "after allocation " << nth;
    return outcome;
}

// The ends of all attempts but the last one, in which no allocation failed.
std::vector<std::string> failedConstructions(Failing failing, bool bSecond)
{
    std::vector<std::string> vEnds;
    for (int nth = 1; nth < 100; ++nth)
    {
        const COutcome outcome = constructInChild(nth, failing, bSecond);
        if (!outcome.bFailed)
        {
            EXPECT_STREQ("made", outcome.szEnd);
            return vEnds;
        }
        vEnds.push_back(outcome.szEnd);
    }
    ADD_FAILURE() << "it never works";
    return vEnds;
}

std::string exceptionAt(int nLine)
{
    return std::string("OrvException 8007000E ") + SOURCE_PATH + "." + std::to_string(nLine);
}
} // namespace

TEST(OutOfMemoryConstruction, FirstServicesObjectThrowsWhereItsPartsAreMissing)
{
    const std::vector<std::string> vEnds = failedConstructions(Failing::Once, false);
    ASSERT_LE(5u, vEnds.size());
    EXPECT_EQ("int 0", vEnds.front()) << "the implementation";
    EXPECT_EQ(exceptionAt(2556), vEnds[1]) << "the driver interface";
    EXPECT_EQ(exceptionAt(2561), vEnds.back()) << "the lock";
    // Log, locks and pipes of the interface may be missing; every command is then refused.
    for (size_t n = 2; n + 1 < vEnds.size(); ++n)
        EXPECT_EQ("made", vEnds[n]) << n;
}

TEST(OutOfMemoryConstruction, FirstServicesObjectThrowsTheSameWithoutAnyMemoryLeft)
{
    const std::vector<std::string> vEnds = failedConstructions(Failing::FromThenOn, false);
    ASSERT_LE(5u, vEnds.size());
    EXPECT_EQ("int 0", vEnds.front());
    EXPECT_EQ(exceptionAt(2556), vEnds[1]);
    for (size_t n = 2; n < vEnds.size(); ++n)
        EXPECT_EQ(exceptionAt(2561), vEnds[n]) << n;
}

TEST(OutOfMemoryConstruction, LaterServicesObjectNeedsOnlyItselfAndItsLock)
{
    EXPECT_EQ((std::vector<std::string>{"int 0", exceptionAt(2561)}), failedConstructions(Failing::Once, true));
}
