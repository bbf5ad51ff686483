// A client's response and event FIFOs.
#ifndef DRIVER_CLIENT_PIPES_H
#define DRIVER_CLIENT_PIPES_H

#include "ClientPort.h"
#include "Fd.h"
#include "Poller.h"

struct CClientPipeNames
{
    std::string m_strRspPipe;
    std::string m_strEvtPipe;
    pid_t m_nProcessID = 0;
};

// The names in a connect request. False, with the reason in strError, unless both are the fixed
// prefixes followed by one and the same process id.
bool parseClientPipeNames(const structMICMD::ConnectBody& connect, CClientPipeNames& names, std::string& strError);

class CClientPipes : public CClientPort
{
public:
    // fdRsp and fdEvt are the pipes of these names, open for writing without blocking.
    CClientPipes(CClientPipeNames names, CFd fdRsp, CFd fdEvt, CPoller& poller);

    ESend sendResponse(const structMIRSP& rsp) override;
    ESend sendEvent(const structMIEVT& evt) override;
    bool watch(std::function<void()> broken, std::function<void()> writable) override;
    void watchForRoom(bool bOn) override;
    pid_t processId() const override;
    bool isGone() const override;

private:
    const CClientPipeNames m_names;
    const bool m_bProcessVisible; // false for a client in another process id namespace
    CFd m_fdRsp;
    CFd m_fdEvt;
    CPoller& m_poller;
    CPoller::CWatch m_watchRsp;
    CPoller::CWatch m_watchEvt;
};

// Whoever can write into the request pipe can name any path. So the driver writes only into what the
// library makes: two FIFOs of the expected names, found without following a link, that have no other
// name, belong to one user, and are being read. Which user that is does not matter, nor whether the
// process can be seen from here: clients of other users and in containers are as good as any. Nothing
// else is opened, and nothing is created.
class CClientPipesOpener : public CClientPortOpener
{
public:
    explicit CClientPipesOpener(CPoller& poller);

    std::unique_ptr<CClientPort> open(const structMICMD::ConnectBody& connect, std::string& strError) override;

private:
    CPoller& m_poller;
};

#endif
