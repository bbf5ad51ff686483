#include "Worlds.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

void inWorlds(size_t nWorlds, const std::function<void(size_t nWorld)>& live)
{
    if (nWorlds <= 1)
        return live(0);
    std::vector<pid_t> vProcesses;
    for (size_t nWorld = 0; nWorld < nWorlds; ++nWorld)
    {
        fflush(stdout);
        const pid_t nProcess = fork();
        if (nProcess == 0)
        {
            if (unshare(CLONE_NEWNS) == 0 && mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777,size=128m") == 0)
                live(nWorld);
            else
                ADD_FAILURE() << "no /tmp of its own (" << errno << "): there is room for one world only";
            exit(testing::Test::HasFailure());
        }
        vProcesses.push_back(nProcess);
    }
    for (size_t nWorld = 0; nWorld < nWorlds; ++nWorld)
    {
        int nStatus = -1;
        waitpid(vProcesses[nWorld], &nStatus, 0);
        EXPECT_EQ(0, nStatus) << "in world " << nWorld;
    }
}
