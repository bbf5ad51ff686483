// The subcommand dump of zelmedia: what the library lists of this process, and the driver of itself.
#include "machine/DumpCommand.h"
#include "OrvLogLib.h"
#include "ZelMediaServices.h"
#include "driver/DriverControl.h"
#include "driver/DriverProbe.h"
#include "driver/OwnPipes.h"
#include "media/MediaSession.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <sys/stat.h>
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

CLibraryDump dumpLibrary(bool bDriverAnswers)
{
    // A driver of another user has to open the library's pipes.
    const mode_t umaskBefore = umask(0);
    CZelMediaServices services(nullptr);
    umask(umaskBefore);
    const auto pListing = std::make_shared<CListing>();
    services.setLogger(new CListingLog(pListing), nullptr);

    CLibraryDump dump;
    const auto end = std::chrono::steady_clock::now() + CONNECT_LIMIT;
    while ((dump.mcstatus = services.dump()) == MCS_NOTCONNECTED && bDriverAnswers &&
           std::chrono::steady_clock::now() < end)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        pListing->clear();
    }
    dump.vLines = pListing->lines();
    return dump;
}

// What the driver lists on its control socket; with "error" when it cannot be asked there.
nlohmann::ordered_json dumpDriver(const CDumpOptions& options)
{
    std::vector<std::string> vSockets = {"/tmp/zelmedia-driver.sock", "/run/zelmedia/driver.sock"};
    if (!options.strControl.empty())
        vSockets = {options.strControl};
    std::string strErrors;
    for (const std::string& strSocket : vSockets)
    {
        nlohmann::ordered_json driver = {{"control", strSocket}};
        std::string strError;
        for (const char* const pszRequest : {"clients", "streams", "faults", "stats"})
        {
            nlohmann::ordered_json answer;
            if (!askDriver(strSocket, pszRequest, options.limit, answer, strError))
                break;
            driver.update(answer);
        }
        if (strError.empty())
            return driver;
        strErrors += (strErrors.empty() ? "" : "; ") + strError;
    }
    return {{"error", strErrors}};
}

void printDump(const CLibraryDump& library, const nlohmann::ordered_json& driver)
{
    printLine("library, process " + std::to_string(getpid()) + ": " + statusText(library.mcstatus));
    for (const std::string& strLine : library.vLines)
        printLine(strLine);
    const auto itError = driver.find("error");
    if (itError == driver.end())
        printLine("driver: " + driver.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    else if (library.mcstatus == MCS_OK)
        printLine("driver: its listing is in its log (no answer on a control socket: " + itError->get<std::string>() +
                  ')');
    else
        printLine("driver: " + itError->get<std::string>());
}
} // namespace

int runDump(const CTool& tool, const CDumpOptions& options)
{
    const CDriverProbe probe = probeDriver(options.limit, 1);
    const bool bAnswers = probe.state == DRIVER_ANSWERS;
    const COwnPipes pipes;
    pipes.removeOnSignals();
    const CLibraryDump library = dumpLibrary(bAnswers);
    const nlohmann::ordered_json driver =
        bAnswers ? dumpDriver(options) : nlohmann::ordered_json{{"error", probe.strReason}};
    if (tool.isJson())
        printJson(
            {{"library",
              {{"process", getpid()}, {"status", MCSTATUSToString(library.mcstatus)}, {"listing", library.vLines}}},
             {"driver", driver}});
    else
        printDump(library, driver);
    const bool bControlFailed = !options.strControl.empty() && driver.contains("error");
    return bAnswers && bControlFailed ? EXIT_CODE_FAILED : exitCodeOf(library.mcstatus);
}
