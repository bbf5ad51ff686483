// The main function of the examples that take calls: arguments, and events until somebody wants the program to end.
#ifndef CALL_MAIN_H
#define CALL_MAIN_H

#include "CallQueue.h"

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <vector>

// Takes "--sip-socket PATH" out of the arguments and returns the path, "" without.
inline std::string takeSipSocket(std::vector<std::string>& arguments)
{
    for (std::size_t n = 0; n + 1 < arguments.size(); ++n)
        if (arguments[n] == "--sip-socket")
        {
            const std::string strPath = arguments[n + 1];
            arguments.erase(arguments.begin() + static_cast<std::ptrdiff_t>(n),
                            arguments.begin() + static_cast<std::ptrdiff_t>(n + 2));
            return strPath;
        }
    return "";
}

// The library needs a moment to connect to the media driver: before that no call is to come.
inline void awaitDriver(CZelMediaServices& media)
{
    for (int n = 0; n < 60 && media.dump() == MCS_NOTCONNECTED; ++n)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

// Makes an APPLICATION of both libraries' services and its arguments, and gives it the events.
template <class APPLICATION> int runCalls(int argc, char** argv, std::size_t nArguments, const char* pszUsage)
try
{
    std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string strSocket = takeSipSocket(arguments);
    if (arguments.size() != nArguments)
    {
        std::fprintf(stderr, "usage: %s [--sip-socket PATH]\n", pszUsage);
        return 2;
    }
    CCallQueue queue; // outlives the services
    CZelMediaServices media(&queue);
    awaitDriver(media);
    CZelCallServices calls(&queue, "*", strSocket);
    APPLICATION application(media, calls, arguments);
    for (CCallEvent event = queue.next(); event.m_eKind != CCallEvent::TERMINATE; event = queue.next())
        application.handle(event);
    return 0;
}
catch (const std::exception& exception)
{
    std::fprintf(stderr, "%s: %s\n", argv[0], exception.what());
    return 1;
}

#endif
