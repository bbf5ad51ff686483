// CMediaSession: one channel of a call, open at the media driver, for a command that plays or records on it.
#include "media/MediaSession.h"

#include "driver/UmaskForDriver.h"

#include "MediaProtocol.h"

#include <filesystem>
#include <unistd.h>

namespace
{
using Clock = std::chrono::steady_clock;

constexpr CMilliseconds CONNECT_POLL(20);
constexpr CMilliseconds CHECK_INTERVAL(2000);

bool isStatusOfLibrary(MCSTATUS mcstatus)
{
    return std::string_view(MCSTATUSToString(mcstatus)).starts_with("MCS_");
}
} // namespace

void CChannelOptions::addTo(CLI::App& app)
{
    const auto check = [](const std::string& strCallID) -> std::string {
        return strCallID.empty()                     ? "a call id is not empty"
               : strCallID.size() >= MI_CALL_ID_SIZE ? "of a call id only 31 characters reach the driver"
                                                     : "";
    };
    app.add_option("--call", m_strCallID, "The call id")->type_name("ID")->required()->check(check);
    app.add_option("--leg", m_nLegID, "The leg of the call; without it 1")->type_name("N");
    addDuration(app, "--wait", m_wait, "How long to wait for the media driver; without it 3s");
}

std::string driverPath(const std::string& strPath)
{
    std::string strAbsolute = strPath.empty() ? "" : std::filesystem::absolute(strPath).lexically_normal();
    if (strAbsolute.empty())
        throw CToolError(EXIT_CODE_USAGE, "a file name is not empty");
    if (strAbsolute.size() >= MI_FILE_NAME_SIZE)
        throw CToolError(EXIT_CODE_USAGE, strAbsolute + ": of a path only 255 characters reach the driver");
    return strAbsolute;
}

std::string statusText(MCSTATUS mcstatus)
{
    const std::string strNumber = std::to_string(mcstatus);
    return isStatusOfLibrary(mcstatus) ? std::string(MCSTATUSToString(mcstatus)) + " (" + strNumber + ")"
                                       : "status " + strNumber;
}

std::string statusHint(MCSTATUS mcstatus)
{
    switch (mcstatus)
    {
    case MCS_REFUSED: return "the driver refused; its log says why";
    case MCS_NORESPONSE: return "the driver did not answer in time";
    case MCS_TIMEDOUT: return "it passed its time-out and was cancelled";
    case MCS_PIPEREAD:
    case MCS_PIPEWRITE:
    case MCS_NOTCONNECTED:
    case MCS_NOTINITIALIZED: return "the driver is gone";
    default:
        return isStatusOfLibrary(mcstatus) ? "see 'zelmedia explain " + std::to_string(mcstatus) + "'"
                                           : "a status of the driver's own";
    }
}

EExitCode exitCodeOf(MCSTATUS mcstatus)
{
    switch (mcstatus)
    {
    case MCS_OK: return EXIT_CODE_OK;
    case MCS_NORESPONSE:
    case MCS_PIPEREAD:
    case MCS_PIPEWRITE:
    case MCS_NOTCONNECTED:
    case MCS_NOTINITIALIZED: return EXIT_CODE_NO_DRIVER;
    default: return EXIT_CODE_FAILED;
    }
}

CMediaSession::CMediaSession(const CChannelOptions& options)
{
    {
        const CUmaskForDriver umaskForDriver;
        m_pServices.reset(new CZelMediaServices(this)); // NOLINT(modernize-make-unique): it may not see the base
    }
    connect(options);
}

CMediaSession::~CMediaSession()
{
    closeStream();
}

// The library connects in the background; until then every request ends with MCS_NOTCONNECTED.
void CMediaSession::connect(const CChannelOptions& options)
{
    const auto giveUp = Clock::now() + options.m_wait;
    MCSTATUS mcstatus;
    while ((mcstatus = m_pServices->openMediaStream(&m_pStream, options.m_strCallID, options.m_nLegID)) ==
           MCS_NOTCONNECTED)
    {
        if (Clock::now() >= giveUp)
            throw CToolError(EXIT_CODE_NO_DRIVER,
                             "no media driver answers within " + secondsText(options.m_wait) + " s; is one running?");
        waitCompletion(CONNECT_POLL);
        if (m_nInterrupts > 0)
            throw CToolError(EXIT_CODE_INTERRUPTED, "interrupted while waiting for the media driver");
    }
    if (mcstatus != MCS_OK)
    {
        closeStream();
        throw CToolError(exitCodeOf(mcstatus),
                         "call " + options.m_strCallID + ", leg " + std::to_string(options.m_nLegID) +
                             " cannot be opened: " + statusText(mcstatus) + ", " + statusHint(mcstatus));
    }
    m_lastCheck = Clock::now();
}

unsigned long CMediaSession::openPhraseFile(const std::string& strPath)
{
    std::string strAbsolute = driverPath(strPath);
    unsigned long ulFileID = 0;
    const MCSTATUS mcstatus = m_pServices->openPhraseFile(strAbsolute.data(), &ulFileID);
    if (mcstatus != MCS_OK)
        throw CToolError(exitCodeOf(mcstatus), strAbsolute + ": " + statusText(mcstatus) + ", " + statusHint(mcstatus));
    return ulFileID;
}

std::optional<CMediaSession::CCompletion> CMediaSession::takeCompletion()
{
    const std::lock_guard hold(m_mutex);
    if (m_completions.empty())
        return std::nullopt;
    const CCompletion completion = m_completions.front();
    m_completions.pop_front();
    return completion;
}

std::optional<CMediaSession::CCompletion> CMediaSession::waitCompletion(CMilliseconds limit)
{
    // A wake-up may be that of a completion which has been taken already.
    const auto end = Clock::now() + limit;
    const int nInterrupts = m_nInterrupts;
    for (bool bLast = false;;)
    {
        if (const auto completion = takeCompletion())
            return completion;
        if (m_nInterrupts > nInterrupts || bLast)
            return std::nullopt;
        const auto left = std::chrono::ceil<CMilliseconds>(end - Clock::now());
        bLast = left.count() <= 0;
        if (m_interrupt.wait(bLast ? CMilliseconds(0) : left))
            ++m_nInterrupts;
    }
}

void CMediaSession::closeStream()
{
    m_pServices->closeMediaStream(m_pStream);
    m_pStream = nullptr;
}

void CMediaSession::checkDriver()
{
    if (Clock::now() < m_lastCheck + CHECK_INTERVAL)
        return;
    const MCSTATUS mcstatus = m_pStream->recordGetStatus();
    m_lastCheck = Clock::now();
    if (exitCodeOf(mcstatus) == EXIT_CODE_NO_DRIVER)
        throw CToolError(EXIT_CODE_NO_DRIVER, "the media driver is lost: " + statusText(mcstatus));
}

void CMediaSession::OnMediaStreamCompletion(CZelMediaStream*, MCSTATUS mcstatus, MCCOMPLETION_REASON reason)
{
    const std::lock_guard hold(m_mutex);
    m_completions.push_back({mcstatus, reason});
    m_interrupt.wake();
}
