// zelmedia-driver: the media driver program.
#include "ControlClient.h"
#include "Driver.h"
#include "EventLoop.h"
#include "Log.h"
#include "Options.h"

#include <sys/resource.h>

#include <cstdio>
#include <exception>

namespace
{
int fail(const std::string& strError)
{
    flushLog();
    std::fprintf(stderr, "zelmedia-driver: %s\n", strError.c_str());
    return 1;
}

// Each client, each RTP socket and each file that is written holds descriptors.
void allowManyFiles()
{
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0)
    {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int serve(const COptions& options)
{
    std::string strError;
    if (!setUpLog(options, strError))
        return fail(strError);
    CEventLoop::blockSignals();
    allowManyFiles();
    CDriver driver(options);
    return driver.open(strError) && driver.run(strError) ? 0 : fail(strError);
}
} // namespace

int main(int nArguments, char** ppArguments)
{
    try
    {
        COptions options;
        if (const auto nExitCode = parseOptions(nArguments, ppArguments, options))
            return *nExitCode;
        return options.m_bCtl ? runControl(options.m_strControlPath, options.m_vstrCtlWords) : serve(options);
    }
    catch (const std::exception& exception)
    {
        return fail(exception.what());
    }
}
