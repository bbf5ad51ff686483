// The whole driver, put together.
#ifndef DRIVER_DRIVER_H
#define DRIVER_DRIVER_H

#include "CallServer.h"
#include "ChannelTable.h"
#include "ClientPipes.h"
#include "ClientRegistry.h"
#include "ClipStore.h"
#include "ControlRequests.h"
#include "ControlSocket.h"
#include "DriverControl.h"
#include "EventLoop.h"
#include "Executor.h"
#include "FaultRules.h"
#include "FileChannel.h"
#include "MediaClock.h"
#include "Options.h"
#include "Outbox.h"
#include "Poller.h"
#include "RequestHandler.h"
#include "RequestPipe.h"
#include "RtpPort.h"
#include "Statistics.h"
#include "TimerQueue.h"

#include <memory>
#include <string>

class CDriver : private CDriverControl
{
public:
    explicit CDriver(const COptions& options);
    ~CDriver() override;

    // Reads the channel table and the fault rules, takes the request pipe and the control socket.
    // False, with the message in strError, when it cannot serve.
    bool open(std::string& strError);

    // Serves until a signal ends it; all files are complete then. False, with the message in strError,
    // when it had to give up.
    bool run(std::string& strError);

private:
    std::vector<CClientState> clients() const override;
    std::vector<CStreamState> streams() const override;
    CStatistics statistics() const override;
    CFaultRules& faults() override;
    size_t hangUp(const std::string& strCallID, std::optional<uint32_t> nLegID) override;
    bool dropClient(int nConnectID) override;
    void freeze(std::optional<std::chrono::milliseconds> time) override;
    void thaw() override;
    void die() override;

    bool addFaults(std::string& strError);
    bool openControl(std::string& strError);
    bool openCalls(std::string& strError);
    void takeRequests();
    void endTurn();
    void everySecond();

    const COptions m_options;
    CSteadyClock m_clock;
    CPoller m_poller;
    CTimerQueue m_timers{m_clock};
    CStatistics m_statistics;
    CFaultRules m_faults;
    CMediaClock m_mediaClock;
    CEventLoop m_loop{m_poller, m_mediaClock, m_timers, m_clock, m_statistics};

    CThreadExecutor m_loader;
    CThreadExecutor m_disk{CThreadExecutor::CSetting{.m_eLinks = m_options.m_eLinks}};
    CClipStore m_clipStore{m_loader, m_options.m_nClipMegabytes << 20};
    CRtpPorts m_rtpPorts;
    CFileChannelFactory m_fileChannels;
    std::unique_ptr<CTableChannelFactory> m_pTableChannels;
    std::unique_ptr<CCallChannelFactory> m_pChannels;

    CClientRegistry m_registry{m_statistics};
    COutbox m_outbox{m_registry, m_faults, m_timers, m_statistics};
    CClientPipesOpener m_opener{m_poller};
    std::unique_ptr<CRequestHandler> m_pHandler;
    CLogLimiter m_rubbishLog{"rubbish in the request pipe"};
    CRequestPipe m_requestPipe;

    CControlRequests m_controlRequests{*this};
    std::unique_ptr<CControlSocket> m_pControlSocket;
    std::unique_ptr<CCallServer> m_pCalls; // null without a call socket
    bool m_bDie = false;
};

#endif
