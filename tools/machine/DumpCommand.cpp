// The subcommand dump of zelmedia: what the library lists of this process, and the driver of itself.
#include "machine/DumpCommand.h"
#include "OrvLogLib.h"
#include "ZelMediaServices.h"
#include "driver/DriverControl.h"
#include "driver/DriverProbe.h"
#include "driver/OwnPipes.h"
#include "driver/UmaskForDriver.h"
#include "media/MediaSession.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
// The library connects once a second.
constexpr std::chrono::seconds CONNECT_LIMIT(10);

// Takes the lines of the library's listing; all others go nowhere.
class CListing
{
public:
    void clear()
    {
        const std::lock_guard<std::mutex> hold(m_mutex);
        m_vLines.clear();
    }
    void add(const std::string& strLine)
    {
        const std::lock_guard<std::mutex> hold(m_mutex);
        if (strLine.starts_with("-- m_") || strLine.starts_with("   "))
            m_vLines.push_back(strLine);
    }
    std::vector<std::string> lines() const
    {
        const std::lock_guard<std::mutex> hold(m_mutex);
        return m_vLines;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_vLines;
};

class CListingLog : public OrvLogLib::CLogFile
{
public:
    explicit CListingLog(std::shared_ptr<CListing> pListing)
        : CLogFile("Media", nullptr, false, false, false), m_pListing(std::move(pListing))
    {
        setTraceMask(1); // the listing's class
    }
    int LogStringArgListX(OrvLogLib::LogLib_Priority, const char* pszFormat, const char*, va_list arguments) override
    {
        char szLine[1024];
        std::vsnprintf(szLine, sizeof(szLine), pszFormat, arguments);
        m_pListing->add(szLine);
        return 0;
    }
    long ReportEventToWIN32Log(long, unsigned short, unsigned long, const char**, void*) override { return 0; }

private:
    const std::shared_ptr<CListing> m_pListing;
};

struct CLibraryDump
{
    MCSTATUS mcstatus = MCS_NOTCONNECTED;
    std::vector<std::string> vLines;
};

std::unique_ptr<CZelMediaServices> openServices()
{
    const CUmaskForDriver umaskForDriver;
    return std::make_unique<CZelMediaServices>(nullptr);
}

CLibraryDump dumpLibrary(bool bDriverAnswers)
{
    const auto pServices = openServices();
    const auto pListing = std::make_shared<CListing>();
    pServices->setLogger(new CListingLog(pListing), nullptr);

    CLibraryDump dump;
    const auto end = std::chrono::steady_clock::now() + CONNECT_LIMIT;
    while ((dump.mcstatus = pServices->dump()) == MCS_NOTCONNECTED && bDriverAnswers &&
           std::chrono::steady_clock::now() < end)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        pListing->clear();
    }
    dump.vLines = pListing->lines();
    return dump;
}

// What the driver lists on its control socket, or why it cannot be asked there.
struct CDriverDump
{
    nlohmann::ordered_json listing;
    std::string strError;
};

bool askAll(const std::string& strSocket, const CDumpOptions& options, CDriverDump& dump, std::string& strError)
{
    dump.listing = {{"control", strSocket}};
    for (const char* const pszRequest : {"clients", "streams", "faults", "stats"})
    {
        nlohmann::ordered_json answer;
        if (!askDriver(strSocket, pszRequest, options.limit, answer, strError))
            return false;
        dump.listing.update(answer);
    }
    return true;
}

CDriverDump dumpDriver(const CDumpOptions& options)
{
    std::vector<std::string> vSockets = {"/tmp/zelmedia-driver.sock", "/run/zelmedia/driver.sock"};
    if (!options.strControl.empty())
        vSockets = {options.strControl};
    CDriverDump dump;
    std::vector<std::string> vErrors;
    for (const std::string& strSocket : vSockets)
    {
        std::string strError;
        if (askAll(strSocket, options, dump, strError))
            return dump;
        vErrors.push_back(strError);
    }
    dump.strError = fmt::format("{}", fmt::join(vErrors, "; "));
    return dump;
}

void printDump(const CLibraryDump& library, const CDriverDump& driver)
{
    printLine(fmt::format("library, process {}: {}", getpid(), statusText(library.mcstatus)));
    for (const std::string& strLine : library.vLines)
        printLine(strLine);
    if (driver.strError.empty())
        printLine("driver: " + driver.listing.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    else if (library.mcstatus == MCS_OK)
        printLine("driver: its listing is in its log (no answer on a control socket: " + driver.strError + ')');
    else
        printLine("driver: " + driver.strError);
}
} // namespace

int runDump(const CTool& tool, const CDumpOptions& options)
{
    const CDriverProbe probe = probeDriver(options.limit, 1);
    const bool bAnswers = probe.state == DRIVER_ANSWERS;
    const COwnPipes pipes;
    pipes.removeOnSignals();
    const CLibraryDump library = dumpLibrary(bAnswers);
    const CDriverDump driver = bAnswers ? dumpDriver(options) : CDriverDump{{}, probe.strReason};
    if (tool.isJson())
        printJson(
            {{"library",
              {{"process", getpid()}, {"status", MCSTATUSToString(library.mcstatus)}, {"listing", library.vLines}}},
             {"driver",
              driver.strError.empty() ? driver.listing : nlohmann::ordered_json{{"error", driver.strError}}}});
    else
        printDump(library, driver);
    const bool bControlFailed = !options.strControl.empty() && !driver.strError.empty();
    return bAnswers && bControlFailed ? EXIT_CODE_FAILED : exitCodeOf(library.mcstatus);
}
