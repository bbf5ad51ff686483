// Runs a command in a mount namespace with a /tmp of its own: private-tmp PROGRAM [ARGUMENT...]
//
// The pipe names are built into the library, so this is what lets test programs run side by side
// and next to a live driver. Where namespaces are forbidden the programs take turns instead.
//
// FOLDERS names what is needed from the old /tmp, such as a clone that lives there: "FOLDER", or "FOLDER", "FOLDER".
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

enum
{
    CANNOT_PREPARE = 125,
    CANNOT_START = 126,
    NOT_FOUND = 127,
    MAX_FOLDERS = 4
};

static const char* const FOLDERS[] = {PRIVATE_TMP_KEEP};

static void fail(const char* pszWhat)
{
    fprintf(stderr, "private-tmp: %s: %s\n", pszWhat, strerror(errno));
    _exit(CANNOT_PREPARE);
}

static int writeFile(const char* pszPath, const char* pszText)
{
    const int nFile = open(pszPath, O_WRONLY | O_CLOEXEC);
    const int bWritten = nFile >= 0 && write(nFile, pszText, strlen(pszText)) == (ssize_t)strlen(pszText);
    if (nFile >= 0)
        close(nFile);
    return bWritten;
}

// Who is not root is, in a user namespace.
static int enterNamespace(void)
{
    const uid_t nUser = geteuid();
    const gid_t nGroup = getegid();
    char szMap[64];
    if (unshare(nUser == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0)
        return 0;
    if (nUser != 0)
    {
        snprintf(szMap, sizeof(szMap), "0 %u 1", (unsigned int)nUser);
        if (!writeFile("/proc/self/setgroups", "deny") || !writeFile("/proc/self/uid_map", szMap))
            return 0;
        snprintf(szMap, sizeof(szMap), "0 %u 1", (unsigned int)nGroup);
        if (!writeFile("/proc/self/gid_map", szMap))
            return 0;
    }
    return mount("none", "/", NULL, MS_REC | MS_PRIVATE, NULL) == 0;
}

// There is no way back from half a namespace of one's own.
static int namespacesAreAllowed(void)
{
    int nStatus = 0;
    const pid_t nChild = fork();
    if (nChild == 0)
        _exit(enterNamespace() ? 0 : 1);
    return nChild > 0 && waitpid(nChild, &nStatus, 0) == nChild && nStatus == 0;
}

static void makeFolders(const char* pszPath)
{
    char szPath[PATH_MAX];
    snprintf(szPath, sizeof(szPath), "%s", pszPath);
    for (char* pSlash = strchr(szPath + 1, '/'); pSlash; pSlash = strchr(pSlash + 1, '/'))
    {
        *pSlash = '\0';
        mkdir(szPath, 0755);
        *pSlash = '/';
    }
    if (mkdir(szPath, 0755) != 0 && errno != EEXIST)
        fail(szPath);
}

static void replaceTmp(void)
{
    int anFolders[MAX_FOLDERS];
    char szOld[32];
    char szWorking[PATH_MAX];
    if (!getcwd(szWorking, sizeof(szWorking)))
        strcpy(szWorking, "/");
    const size_t nFolders = sizeof(FOLDERS) / sizeof(FOLDERS[0]);
    for (size_t n = 0; n < nFolders; ++n)
    {
        anFolders[n] = strncmp(FOLDERS[n], "/tmp/", 5) == 0 ? open(FOLDERS[n], O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
    }
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777,size=512m") != 0)
        fail("/tmp");
    for (size_t n = 0; n < nFolders; ++n)
    {
        if (anFolders[n] < 0)
            continue;
        makeFolders(FOLDERS[n]);
        snprintf(szOld, sizeof(szOld), "/proc/self/fd/%d", anFolders[n]);
        if (mount(szOld, FOLDERS[n], NULL, MS_BIND | MS_REC, NULL) != 0)
            fail(FOLDERS[n]);
        close(anFolders[n]);
    }
    if (chdir(szWorking) != 0 && chdir("/") != 0) // a folder of the old /tmp is out of sight now
        fail("/");
}

static void start(char* argv[])
{
    execvp(argv[0], argv);
    const int nError = errno;
    fprintf(stderr, "private-tmp: %s: %s\n", argv[0], strerror(nError));
    _exit(nError == ENOENT ? NOT_FOUND : CANNOT_START);
}

static int startInTurn(char* argv[])
{
    int nStatus = 0;
    fputs("private-tmp: no namespaces here; taking turns in the shared /tmp\n", stderr);
    const int nLock = open("/tmp/zelmedia-tests.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (nLock < 0)
        fail("/tmp/zelmedia-tests.lock");
    while (flock(nLock, LOCK_EX) != 0)
    {
        if (errno != EINTR)
            fail("/tmp/zelmedia-tests.lock");
    }
    const pid_t nChild = fork();
    if (nChild < 0)
        fail("fork");
    if (nChild == 0)
        start(argv);
    while (waitpid(nChild, &nStatus, 0) < 0)
    {
        if (errno != EINTR)
            fail(argv[0]);
    }
    return WIFSIGNALED(nStatus) ? 128 + WTERMSIG(nStatus) : WEXITSTATUS(nStatus);
}

int main(int argc, char* argv[])
{
    if (argc < 2)
    {
        fputs("usage: private-tmp PROGRAM [ARGUMENT...]\n", stderr);
        return CANNOT_PREPARE;
    }
    if (geteuid() == 0 ? !enterNamespace() : !(namespacesAreAllowed() && enterNamespace()))
        return startInTurn(argv + 1);
    replaceTmp();
    start(argv + 1);
}
