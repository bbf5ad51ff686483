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
int Fail(const std::string& strError)
{
    std::fprintf(stderr, "zelmedia-driver: %s\n", strError.c_str());
    return 1;
}

// Each client, each RTP socket and each file that is written holds descriptors.
void AllowManyFiles()
{
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0)
    {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int Serve(const COptions& options)
{
    std::string strError;
    if (!SetUpLog(options, strError))
    {
        return Fail(strError);
    }
    CEventLoop::BlockSignals();
    AllowManyFiles();
    CDriver driver(options);
    return driver.Open(strError) && driver.Run(strError) ? 0 : Fail(strError);
}
} // namespace

int main(int nArguments, char** ppArguments)
{
    try
    {
        COptions options;
        if (const auto nExitCode = ParseOptions(nArguments, ppArguments, options))
        {
            return *nExitCode;
        }
        return options.m_bCtl ? RunControl(options.m_strControlPath, options.m_vstrCtlWords) : Serve(options);
    }
    catch (const std::exception& exception)
    {
        return Fail(exception.what());
    }
}
