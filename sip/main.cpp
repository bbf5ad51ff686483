// zelmedia-sip: the signalling daemon program.
#include "Daemon.h"
#include "Log.h"
#include "Options.h"

#include <sys/resource.h>

#include <cstdio>
#include <exception>

namespace
{
int fail(const std::string& strError)
{
    std::fprintf(stderr, "zelmedia-sip: %s\n", strError.c_str());
    return 1;
}

// Each connection of a peer or an application holds one.
void allowManyFiles()
{
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0)
    {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}
} // namespace

int main(int nArguments, char** ppArguments)
{
    try
    {
        COptions options;
        if (const auto nExitCode = parseOptions(nArguments, ppArguments, options))
            return *nExitCode;
        std::string strError;
        if (!setUpLog(options, strError))
            return fail(strError);
        allowManyFiles();
        CDaemon daemon(options);
        return daemon.run(strError) ? 0 : fail(strError);
    }
    catch (const std::exception& exception)
    {
        return fail(exception.what());
    }
}
