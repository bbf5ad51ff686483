#include "ReferenceDriver.h"
#include "Places.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

bool CDriverProcess::start(const std::string& strProgram, const std::vector<std::string>& vArguments)
{
    int anPipe[2] = {-1, -1};
    if (pipe2(anPipe, O_CLOEXEC) != 0)
        return false;
    std::vector<std::string> vWords = {strProgram};
    vWords.insert(vWords.end(), vArguments.begin(), vArguments.end());
    const bool bStarted = CChild::start(vWords, {.m_nOutput = anPipe[1]});
    close(anPipe[1]);
    char c = 0; // none when it cannot start
    const bool bReady = bStarted && read(anPipe[0], &c, 1) == 1;
    close(anPipe[0]);
    return bReady;
}

bool CReferenceDriver::start(const std::vector<std::string>& vOptions)
{
    return CDriverProcess::start(REFERENCE_DRIVER_PROGRAM, vOptions);
}

void CReferenceDriver::stop(int nSignal)
{
    signal(nSignal);
    waitEnd();
}

bool CReferenceDriver::control(const std::vector<std::string>& vWords)
{
    std::vector<std::string> vArguments = {REFERENCE_DRIVER_PROGRAM, "ctl"};
    vArguments.insert(vArguments.end(), vWords.begin(), vWords.end());
    const int nNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    CChild asking;
    asking.start(vArguments, {.m_nOutput = nNull});
    close(nNull);
    return asking.waitExit() == 0;
}
