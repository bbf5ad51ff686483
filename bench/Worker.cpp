// The process that is measured: runs probes by name, on core 0, with a peer of its own.
#include "Fd.h"
#include "Probe.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

// What only the native worker has.
__attribute__((weak)) void addPeerProbes(CProbeTable& table);

namespace
{
constexpr int COMMAND_FD = 3; // a SOCK_SEQPACKET socket
constexpr int OWN_CORE = 0;
constexpr int OTHER_CORE = 1;
constexpr int HIGHEST_PRIORITY = -20;
const std::string OTHER_CORE_SUFFIX = "@2";

void pin(pid_t nProcess, int nCore)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(nCore), &set);
    if (::sched_setaffinity(nProcess, sizeof(set), &set) != 0)
        throw std::runtime_error("cannot move a process to core " + std::to_string(nCore));
}

// Starts the peer and waits until it is ready. It ends with this process.
pid_t startPeer(const char* pProgram)
{
    std::array<int, 2> fds;
    if (::pipe(fds.data()) != 0)
        throw std::runtime_error("no pipe");
    const CFd fdRead(fds[0]);
    CFd fdWrite(fds[1]);
    const pid_t nPeer = ::fork();
    if (nPeer == 0)
    {
        ::dup2(fdWrite.get(), STDOUT_FILENO);
        ::execl(pProgram, pProgram, nullptr);
        ::_exit(127);
    }
    fdWrite.close();
    char c;
    if (nPeer < 0 || ::read(fdRead.get(), &c, 1) != 1)
        throw std::runtime_error(std::string("cannot start ") + pProgram);
    return nPeer;
}

class CWorker
{
public:
    explicit CWorker(const char* pPeerProgram)
    {
        pin(0, OWN_CORE);
        ::setpriority(PRIO_PROCESS, 0, HIGHEST_PRIORITY); // for the peer, too; not everybody may
        m_nPeer = startPeer(pPeerProgram);
        addBareProbes(m_table);
        addExchangeProbes(m_table);
        addEventProbes(m_table);
        addLogProbes(m_table);
        addGrowthProbes(m_table);
        if (addPeerProbes)
            addPeerProbes(m_table);
    }

    std::chrono::nanoseconds run(std::string strName, int64_t nOperations)
    {
        const bool bOtherCore = strName.ends_with(OTHER_CORE_SUFFIX);
        if (bOtherCore)
            strName.resize(strName.size() - OTHER_CORE_SUFFIX.size());
        if (bOtherCore != m_bPeerOnOtherCore)
            pin(m_nPeer, bOtherCore ? OTHER_CORE : OWN_CORE);
        m_bPeerOnOtherCore = bOtherCore;
        return probe(strName).run(nOperations);
    }

private:
    CProbe& probe(const std::string& strName)
    {
        const std::string strGroup = strName.substr(0, strName.find('/'));
        if (strGroup != m_strGroup)
            m_mapProbes.clear();
        m_strGroup = strGroup;
        std::unique_ptr<CProbe>& pProbe = m_mapProbes[strName];
        if (!pProbe)
            pProbe = m_table.all().at(strName)();
        return *pProbe;
    }

    CProbeTable m_table;
    std::map<std::string, std::unique_ptr<CProbe>> m_mapProbes; // of one group
    std::string m_strGroup;
    pid_t m_nPeer = -1;
    bool m_bPeerOnOtherCore = false;
};

// "NAME OPERATIONS" gives "NANOSECONDS", or "!" and what went wrong.
std::string answer(CWorker& worker, const std::string& strCommand)
{
    std::istringstream command(strCommand);
    std::string strName;
    int64_t nOperations = 0;
    command >> strName >> nOperations;
    try
    {
        return std::to_string(worker.run(strName, nOperations).count());
    }
    catch (const std::out_of_range&)
    {
        return "!no probe " + strName;
    }
    catch (const std::exception& exception)
    {
        return std::string("!") + exception.what();
    }
}
} // namespace

// bench-worker PEER-PROGRAM
int main(int nArguments, char** ppArguments)
{
    if (nArguments != 2)
        return EXIT_FAILURE;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    try
    {
        CWorker worker(ppArguments[1]);
        std::array<char, 256> command;
        for (;;)
        {
            const ssize_t nBytes = ::recv(COMMAND_FD, command.data(), command.size(), 0);
            if (nBytes <= 0)
                break;
            const std::string strAnswer = answer(worker, {command.data(), static_cast<size_t>(nBytes)});
            ::send(COMMAND_FD, strAnswer.data(), strAnswer.size(), MSG_NOSIGNAL);
        }
    }
    catch (const std::exception& exception)
    {
        const std::string strAnswer = std::string("!") + exception.what();
        ::send(COMMAND_FD, strAnswer.data(), strAnswer.size(), MSG_NOSIGNAL);
    }
    // The library's threads are still there: nothing is to be destroyed under them.
    ::_exit(0);
}
