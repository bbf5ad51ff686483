// CToolRun: the command zelmedia as a child process, as a user types it.
#include "ToolRun.h"
#include "Places.h"

#include "SampleFiles.h"
#include "WaitUntil.h"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <pty.h>
#include <stdexcept>
#include <unistd.h>

CToolRun::CToolRun(const std::vector<std::string>& vArguments, EOutput output)
{
    char szFolder[] = "/tmp/tool-run-XXXXXX";
    if (!mkdtemp(szFolder))
        throw std::runtime_error("no folder for a tool's output");
    m_strFolder = szFolder;

    std::vector<std::string> vWords = {ZELMEDIA_PROGRAM};
    vWords.insert(vWords.end(), vArguments.begin(), vArguments.end());
    if (output == TO_TERMINAL)
        startOnTerminal(vWords);
    else
        startToFiles(vWords);
}

CToolRun::~CToolRun()
{
    kill();
    if (m_nTerminal >= 0)
        close(m_nTerminal);
    std::filesystem::remove_all(m_strFolder);
}

void CToolRun::startToFiles(const std::vector<std::string>& vWords)
{
    const int nNothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int nOutput = openOutput(m_strFolder + "/out");
    const int nErrors = openOutput(m_strFolder + "/err");
    start(vWords, {nNothing, nOutput, nErrors});
    for (const int nFile : {nNothing, nOutput, nErrors})
        close(nFile);
}

void CToolRun::startOnTerminal(const std::vector<std::string>& vWords)
{
    const winsize size = {24, 80, 0, 0};
    int nChildSide = -1;
    if (openpty(&m_nTerminal, &nChildSide, nullptr, nullptr, &size) != 0)
        throw std::runtime_error("no terminal for a tool");
    fcntl(m_nTerminal, F_SETFD, FD_CLOEXEC);
    fcntl(nChildSide, F_SETFD, FD_CLOEXEC);
    start(vWords, {nChildSide, nChildSide, nChildSide});
    close(nChildSide);
    fcntl(m_nTerminal, F_SETFL, O_NONBLOCK);
}

bool CToolRun::waitOutput(const std::string& strText)
{
    const auto arrived = [&] { return output().find(strText) != std::string::npos; };
    waitUntil([&] { return arrived() || !isRunning(); }, std::chrono::seconds(30));
    return arrived();
}

int CToolRun::waitExit()
{
    const auto ended = [&] {
        readTerminal(); // or it would wait for room
        return !isRunning();
    };
    if (!m_nExit && waitUntil(ended))
        m_nExit = CChild::waitExit();
    return m_nExit.value_or(-1);
}

std::string CToolRun::output()
{
    if (m_nTerminal < 0)
        return readFile(m_strFolder + "/out");
    readTerminal();
    return m_strTerminal;
}

std::string CToolRun::errors() const
{
    return readFile(m_strFolder + "/err");
}

void CToolRun::readTerminal()
{
    char szBuffer[4096];
    ssize_t nRead = 0;
    while (m_nTerminal >= 0 && (nRead = read(m_nTerminal, szBuffer, sizeof(szBuffer))) > 0)
        m_strTerminal.append(szBuffer, static_cast<size_t>(nRead));
}
