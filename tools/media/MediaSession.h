// CMediaSession: one channel of a call, open at the media driver, for a command that plays or records on it.
#ifndef MEDIA_SESSION_H
#define MEDIA_SESSION_H

#include "ZelMediaServices.h"
#include "base/Duration.h"
#include "base/Interrupt.h"
#include "base/Tool.h"
#include "driver/OwnPipes.h"

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

// The options --call, --leg and --wait.
struct CChannelOptions
{
    std::string m_strCallID;
    uint32_t m_nLegID = 1;
    CMilliseconds m_wait = std::chrono::seconds(3);

    void addTo(CLI::App& app);
};

// The path as the driver, which has another working directory, has to get it. Throws CToolError for one
// that is too long to travel.
std::string driverPath(const std::string& strPath);

// "MCS_REFUSED (34)"; for a status of the driver's own "status 5".
std::string statusText(MCSTATUS mcstatus);

// What "MCS_REFUSED (34)" is followed by in an error message.
std::string statusHint(MCSTATUS mcstatus);

// EXIT_CODE_NO_DRIVER for the statuses that say that the driver is not there or does not answer.
EExitCode exitCodeOf(MCSTATUS mcstatus);

class CMediaSession : private CZelMediaStreamCompletionHandler
{
public:
    struct CCompletion
    {
        MCSTATUS m_mcstatus;
        MCCOMPLETION_REASON m_reason;
    };

    // How long an end that was asked for is waited for.
    static constexpr CMilliseconds CANCEL_LIMIT{5000};

    // Connects and opens the channel. Throws CToolError when that fails or is interrupted.
    explicit CMediaSession(const CChannelOptions& options);
    ~CMediaSession() override; // ends what still plays or records
    CMediaSession(const CMediaSession&) = delete;
    CMediaSession& operator=(const CMediaSession&) = delete;

    CZelMediaServices& services() { return *m_pServices; }
    CZelMediaStream& stream() { return *m_pStream; }

    // Opens a phrase file. Throws CToolError.
    unsigned long openPhraseFile(const std::string& strPath);

    // The next completion; nothing when there is none within the limit or the user interrupts.
    std::optional<CCompletion> waitCompletion(CMilliseconds limit);

    // How often the user has interrupted.
    int interrupts() const { return m_nInterrupts; }

    // Ends the stream now: what is recorded is complete then.
    void closeStream();

    // Asks the driver whether it is still there, once in two seconds at most: a driver that dies tells
    // nobody. Throws CToolError when it is not.
    void checkDriver();

private:
    void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) override;
    void connect(const CChannelOptions& options);
    std::optional<CCompletion> takeCompletion();

    CInterrupt m_interrupt;
    COwnPipes m_pipes;
    int m_nInterrupts = 0;
    std::mutex m_mutex;
    std::deque<CCompletion> m_completions; // guarded by m_mutex
    std::unique_ptr<CZelMediaServices> m_pServices;
    CZelMediaStream* m_pStream = nullptr;
    std::chrono::steady_clock::time_point m_lastCheck;
};

#endif
