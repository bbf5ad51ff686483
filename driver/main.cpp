// zelmedia-driver: the media driver program.
#include "ClientPipes.h"
#include "EventLoop.h"
#include "FileChannel.h"
#include "Log.h"
#include "Options.h"

#include <spdlog/spdlog.h>
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

// Each stream and each recording holds a file open.
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
    CEventLoop loop;
    CRequestPipe requestPipe;
    std::string strError;
    if (!loop.Create(strError) || !requestPipe.Open(strError))
    {
        return Fail(strError);
    }
    CClipStore clipStore;
    CFileChannelFactory channels(clipStore, options.m_strAudioFolder);
    CClientPipesOpener opener(loop.EpollFd());
    CClientRegistry registry;
    CRequestHandler handler(registry, clipStore, channels, opener);

    spdlog::info("zelmedia-driver " ZELMEDIA_VERSION " serves {}, audio in \"{}\"{}", MI_REQUEST_PIPE,
                 options.m_strAudioFolder, options.m_eSpeed == ESpeed::Max ? ", at maximum speed" : "");
    std::puts("zelmedia-driver: ready");
    std::fflush(stdout);

    const bool bOk = loop.Run(requestPipe, handler, registry, options.m_eSpeed, strError);
    registry.DropAll("the driver ends");
    spdlog::info("zelmedia-driver ends");
    return bOk ? 0 : Fail(strError);
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
        std::string strError;
        if (!SetUpLog(options, strError))
        {
            return Fail(strError);
        }
        CEventLoop::BlockSignals();
        AllowManyFiles();
        return Serve(options);
    }
    catch (const std::exception& exception)
    {
        return Fail(exception.what());
    }
}
