// What stands under the request pipe's name must be a pipe: nothing else is ever written into.
#include "MIntfFixture.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

static const std::string CONTENT = "content"; // shorter than a request

class MIntfRequestPipe : public CMIntfTest
{
protected:
    MIntfRequestPipe() { disconnect(); }
    ~MIntfRequestPipe() override { unlink(MI_REQUEST_PIPE); }

    void expectRefused(const char* pszVictim)
    {
        m_pmintf->idlePass();
        EXPECT_EQ(-1, m_pmintf->m_npipeReq);
        EXPECT_EQ(CONTENT.size(), std::filesystem::file_size(pszVictim));
        EXPECT_TRUE(m_pLog->has({1, 64,
                                 "(Error) CMIntf::eventThreadFunc, can't open request pipe "
                                 "\"/tmp/OrvMediaIntf-Req\" (" +
                                     std::to_string(ENXIO) + ")"}));
    }

    static void writeFile(const char* pszFile) { std::ofstream(pszFile) << CONTENT; }
};

TEST_F(MIntfRequestPipe, FileUnderItsNameIsNotWritten)
{
    writeFile(MI_REQUEST_PIPE);
    expectRefused(MI_REQUEST_PIPE);
}

TEST_F(MIntfRequestPipe, FileBehindALinkIsNotWritten)
{
    writeFile("/tmp/victim");
    ASSERT_EQ(0, symlink("/tmp/victim", MI_REQUEST_PIPE));
    expectRefused("/tmp/victim");
}

TEST_F(MIntfRequestPipe, OwnPipesAreOpenedWithoutFollowingALink)
{
    EXPECT_NE(0, fcntl(m_pmintf->m_npipeRsp, F_GETFL) & O_NOFOLLOW);
    EXPECT_NE(0, fcntl(m_pmintf->m_npipeEvt, F_GETFL) & O_NOFOLLOW);
}

TEST_F(MIntfRequestPipe, RefusedFileLeavesNoDescriptorOpen)
{
    writeFile(MI_REQUEST_PIPE);
    const auto countOpen = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    const auto nBefore = countOpen();
    m_pmintf->idlePass();
    EXPECT_EQ(nBefore, countOpen());
}
