// The subcommands status, clean, dump of zelmedia.
#include "machine/MachineCommands.h"

#include "base/Duration.h"
#include "base/Terminal.h"
#include "base/Tool.h"
#include "driver/DriverProbe.h"
#include "driver/PipeTable.h"
#include "machine/DumpCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <memory>

namespace
{
const char* const STATUS_EXAMPLES = "  zelmedia status\n"
                                    "  zelmedia status --timeout 500ms > /dev/null || echo no driver\n"
                                    "  zelmedia status --json | jq .driver.round_trip_ms\n"
                                    "\n"
                                    "Exit codes: 0 the driver answers, 3 it does not; 1 with --fail-on-stale when "
                                    "it does but\nthere are stale pipes, which every ended process leaves.";

const char* const CLEAN_EXAMPLES = "  zelmedia clean --dry-run\n"
                                   "  zelmedia clean\n"
                                   "  zelmedia clean --process-id $$ && exec my-application\n"
                                   "  ExecStartPre=-/usr/bin/zelmedia clean      (in a systemd unit)\n"
                                   "\n"
                                   "A pipe is stale when nobody reads it and its process is gone, is younger than the "
                                   "pipe, or\nhas not used it for 10 s. Anything else stays.\n"
                                   "Exit codes: 0 done, also with nothing to do; 1 a stale pipe could not be removed.";

const char* const DUMP_EXAMPLES = "  zelmedia dump\n"
                                  "  zelmedia dump --control /run/zelmedia/driver.sock\n"
                                  "  zelmedia dump --json | jq .driver.streams\n"
                                  "\n"
                                  "Exit codes: 0 listed, 1 the driver refused, 3 it does not answer.";

struct CStatusOptions
{
    CMilliseconds limit = std::chrono::seconds(2);
    unsigned int nPings = 5;
    bool bFailOnStale = false;
};

struct CCleanOptions
{
    int nProcessID = 0;
    bool bDryRun = false;
};

void addTimeout(CLI::App& command, CMilliseconds& limit)
{
    addDuration(command, "--timeout", limit, "How long to wait for the driver; without it 2s");
}

double median(std::vector<double> vValues)
{
    std::sort(vValues.begin(), vValues.end());
    return vValues.empty() ? 0 : vValues[vValues.size() / 2];
}

std::string ageText(double dSeconds)
{
    const std::pair<double, const char*> UNITS[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
    for (const auto& [dUnit, pszUnit] : UNITS)
        if (dSeconds >= 2 * dUnit)
            return std::to_string(static_cast<long>(dSeconds / dUnit)) + ' ' + pszUnit;
    return std::to_string(static_cast<long>(dSeconds)) + " s";
}

// The pipes of one process.
typedef std::vector<CClientPipe> CClient;

std::vector<CClient> clientsOf(const std::vector<CClientPipe>& vPipes)
{
    std::vector<CClient> vClients;
    for (const CClientPipe& pipe : vPipes)
    {
        if (vClients.empty() || vClients.back().front().nProcessID != pipe.nProcessID)
            vClients.emplace_back();
        vClients.back().push_back(pipe);
    }
    return vClients;
}

// What people ask first: of several states, the first one in EPipeState.
EPipeState stateOf(const CClient& client)
{
    const auto isBefore = [](const CClientPipe& left, const CClientPipe& right) { return left.state < right.state; };
    return std::min_element(client.begin(), client.end(), isBefore)->state;
}

size_t countStale(const std::vector<CClientPipe>& vPipes)
{
    const auto isStale = [](const CClientPipe& pipe) { return pipe.state == PIPE_STALE; };
    return static_cast<size_t>(std::count_if(vPipes.begin(), vPipes.end(), isStale));
}

nlohmann::json toJson(const CDriverProbe& probe)
{
    nlohmann::json json = {{"state", driverStateToString(probe.state)}};
    if (probe.state != DRIVER_ANSWERS)
        json["reason"] = probe.strReason;
    else
        json.update(
            {{"connect_ms", probe.dConnectMs}, {"round_trip_ms", median(probe.vPingMs)}, {"pings_ms", probe.vPingMs}});
    return json;
}

nlohmann::json toJson(const CClient& client)
{
    const CClientPipe& first = client.front();
    nlohmann::json pipes = nlohmann::json::array();
    for (const CClientPipe& pipe : client)
        pipes.push_back({{"path", pipe.strPath},
                         {"kind", pipe.strKind},
                         {"state", pipeStateToString(pipe.state)},
                         {"age_s", pipe.dAge},
                         {"idle_s", pipe.dIdle}});
    return {{"process", first.nProcessID},
            {"alive", first.bProcessLives},
            {"command", first.bProcessLives ? commandName(first.nProcessID) : ""},
            {"state", pipeStateToString(stateOf(client))},
            {"pipes", pipes}};
}

void printDriver(const CDriverProbe& probe)
{
    if (probe.state != DRIVER_ANSWERS)
    {
        printLine("driver   " + coloured(COLOUR_RED, driverStateToString(probe.state)) + ": " + probe.strReason);
        return;
    }
    const auto [itLeast, itMost] = std::minmax_element(probe.vPingMs.begin(), probe.vPingMs.end());
    const std::string strTimes =
        fmt::format(", round trip {:.3f} ms ({} pings, {:.3f} to {:.3f} ms), connect {:.3f} ms", median(probe.vPingMs),
                    probe.vPingMs.size(), *itLeast, *itMost, probe.dConnectMs);
    printLine("driver   " + coloured(COLOUR_GREEN, "answers") + strTimes);
}

void printClient(const CClient& client)
{
    const CClientPipe& first = client.front();
    const EPipeState state = stateOf(client);
    std::string strState = pipeStateToString(state);
    if (state == PIPE_STALE && first.bProcessLives)
        strState += ", keeps it out";
    const EColour colour = state == PIPE_IN_USE ? COLOUR_GREEN : state == PIPE_STALE ? COLOUR_YELLOW : COLOUR_NONE;

    std::string strPipes;
    for (const CClientPipe& pipe : client)
    {
        strPipes += (strPipes.empty() ? "" : ", ") + pipe.strKind;
        if (pipe.state != state)
            strPipes += std::string(" (") + pipeStateToString(pipe.state) + ')';
    }
    const std::string strCommand = first.bProcessLives ? commandName(first.nProcessID) : "(ended)";
    printLine(fmt::format("{:7}  {:<15}  ", first.nProcessID, strCommand) +
              coloured(colour, fmt::format("{:<21}", strState)) +
              fmt::format("{:>8}  {}", ageText(first.dAge), strPipes));
}

void printClients(const std::vector<CClientPipe>& vPipes)
{
    const std::vector<CClient> vClients = clientsOf(vPipes);
    const size_t nStale = countStale(vPipes);
    std::string strText = "clients  " + std::to_string(vClients.size());
    if (nStale > 0)
        strText += ", stale pipes: " + std::to_string(nStale) + " (zelmedia clean removes them)";
    printLine(strText);
    if (!vClients.empty())
        printLine(coloured(COLOUR_BOLD, "\nPROCESS  COMMAND          STATE                     AGE  PIPES"));
    for (const CClient& client : vClients)
        printClient(client);
}

int runStatus(const CTool& tool, const CStatusOptions& options)
{
    const CDriverProbe probe = probeDriver(options.limit, options.nPings);
    const std::vector<CClientPipe> vPipes = listClientPipes();
    if (tool.isJson())
    {
        nlohmann::json clients = nlohmann::json::array();
        for (const CClient& client : clientsOf(vPipes))
            clients.push_back(toJson(client));
        printJson({{"driver", toJson(probe)}, {"clients", clients}, {"stale_pipes", countStale(vPipes)}});
    }
    else
    {
        printDriver(probe);
        printClients(vPipes);
    }
    if (probe.state != DRIVER_ANSWERS)
        return EXIT_CODE_NO_DRIVER;
    return options.bFailOnStale && countStale(vPipes) > 0 ? EXIT_CODE_FAILED : EXIT_CODE_OK;
}

std::string reasonOf(const CClientPipe& pipe)
{
    const std::string strProcess = "process " + std::to_string(pipe.nProcessID);
    return pipe.bProcessLives ? strProcess + ", " + commandName(pipe.nProcessID) + ", is not its owner"
                              : "there is no " + strProcess;
}

// A pipe, and what there is to say of it.
struct CPipeRemark
{
    std::string strPath;
    std::string strRemark;
};

// What clean has done and met.
struct CCleaning
{
    std::vector<CPipeRemark> vRemoved;
    std::vector<CPipeRemark> vFailed;
    std::vector<std::string> vForeign;
    size_t nKept = 0;
};

CCleaning clean(const std::vector<CClientPipe>& vPipes, bool bDryRun)
{
    CCleaning cleaning;
    for (const CClientPipe& pipe : vPipes)
    {
        std::string strError;
        if (pipe.state == PIPE_FOREIGN)
            cleaning.vForeign.push_back(pipe.strPath);
        else if (pipe.state == PIPE_STALE && (bDryRun || removeStalePipe(pipe, strError)))
            cleaning.vRemoved.push_back({pipe.strPath, reasonOf(pipe)});
        else if (!strError.empty())
            cleaning.vFailed.push_back({pipe.strPath, strError});
        else
            ++cleaning.nKept;
    }
    return cleaning;
}

nlohmann::json toJson(const std::vector<CPipeRemark>& vRemarks, const char* pszRemark)
{
    nlohmann::json json = nlohmann::json::array();
    for (const CPipeRemark& remark : vRemarks)
        json.push_back({{"path", remark.strPath}, {pszRemark, remark.strRemark}});
    return json;
}

void printCleaning(const CCleaning& cleaning, bool bDryRun)
{
    for (const CPipeRemark& removed : cleaning.vRemoved)
        printLine(fmt::format("{} {}: {}", bDryRun ? "would remove" : "removed", removed.strPath, removed.strRemark));
    for (const std::string& strPath : cleaning.vForeign)
        printError(strPath + " is no pipe: left alone");
    for (const CPipeRemark& failed : cleaning.vFailed)
        printError(fmt::format("cannot remove {}: {}", failed.strPath, failed.strRemark));
    if (cleaning.vRemoved.empty() && cleaning.vFailed.empty())
        printLine("no stale pipes");
}

int runClean(const CTool& tool, const CCleanOptions& options)
{
    const CCleaning cleaning =
        clean(options.nProcessID > 0 ? listClientPipes(options.nProcessID) : listClientPipes(), options.bDryRun);
    if (tool.isJson())
        printJson({{"dry_run", options.bDryRun},
                   {"removed", toJson(cleaning.vRemoved, "reason")},
                   {"failed", toJson(cleaning.vFailed, "error")},
                   {"no_pipes", cleaning.vForeign},
                   {"kept", cleaning.nKept}});
    else
        printCleaning(cleaning, options.bDryRun);
    return cleaning.vFailed.empty() ? EXIT_CODE_OK : EXIT_CODE_FAILED;
}
} // namespace

void addMachineCommands(CTool& tool)
{
    const auto pStatus = std::make_shared<CStatusOptions>();
    CLI::App* pCommand =
        tool.addCommand(tool.app(), "status", "Tell whether the driver answers and who its clients are",
                        STATUS_EXAMPLES, [&tool, pStatus] { return runStatus(tool, *pStatus); });
    addTimeout(*pCommand, pStatus->limit);
    pCommand->add_option("--pings", pStatus->nPings, "How many round trips to measure; without it 5")
        ->check(CLI::Range(1, 10000))
        ->option_text("N");
    pCommand->add_flag("--fail-on-stale", pStatus->bFailOnStale, "End with 1 when there are stale pipes");

    const auto pClean = std::make_shared<CCleanOptions>();
    pCommand = tool.addCommand(tool.app(), "clean", "Remove the pipes that ended processes left in /tmp",
                               CLEAN_EXAMPLES, [&tool, pClean] { return runClean(tool, *pClean); });
    pCommand->add_option("--process-id", pClean->nProcessID, "Only the pipes of this process id")
        ->check(CLI::Range(1, INT_MAX))
        ->option_text("N");
    pCommand->add_flag("--dry-run", pClean->bDryRun, "Only tell what would be removed");

    const auto pDump = std::make_shared<CDumpOptions>();
    pCommand = tool.addCommand(tool.app(), "dump", "List the state of the library in this process and of the driver",
                               DUMP_EXAMPLES, [&tool, pDump] { return runDump(tool, *pDump); });
    addTimeout(*pCommand, pDump->limit);
    pCommand->add_option("--control", pDump->strControl, "The control socket of the driver")->type_name("PATH");
}
