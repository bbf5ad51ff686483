// A client's response and event FIFOs.
#ifndef DRIVER_CLIENT_PIPES_H
#define DRIVER_CLIENT_PIPES_H

#include "ClientPort.h"
#include "Fd.h"

struct CClientPipeNames
{
    std::string m_strRspPipe;
    std::string m_strEvtPipe;
    pid_t m_nProcessID = 0;
};

// The names in a connect request. False, with the reason in strError, unless both are the fixed
// prefixes followed by one and the same process id.
bool ParseClientPipeNames(const structMICMD::ConnectBody& connect, CClientPipeNames& names, std::string& strError);

class CClientPipes : public CClientPort
{
public:
    CClientPipes(pid_t nProcessID, CFd fdRsp, CFd fdEvt, int nEpollFd);

    ESend SendResponse(const structMIRSP& rsp) override;
    ESend SendEvent(const structMIEVT& evt) override;
    bool Watch(int nConnectID) override;
    void WatchForRoom(bool bOn) override;
    pid_t ProcessID() const override;
    bool IsProcessGone() const override;

private:
    const pid_t m_nProcessID;
    const bool m_bProcessVisible; // false for a client in another process id namespace
    CFd m_fdRsp;
    CFd m_fdEvt;
    const int m_nEpollFd;
    int m_nConnectID = 0;
};

// Writes only into existing FIFOs of the expected names, never through a link, and creates nothing.
class CClientPipesOpener : public CClientPortOpener
{
public:
    // nEpollFd reports on the pipes, with the connect id as its data.
    explicit CClientPipesOpener(int nEpollFd);

    std::unique_ptr<CClientPort> Open(const structMICMD::ConnectBody& connect, std::string& strError) override;

private:
    const int m_nEpollFd;
};

#endif
