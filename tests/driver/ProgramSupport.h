// The driver as a program, bare clients on real FIFOs, and child processes for them to live in.
#ifndef DRIVER_PROGRAM_SUPPORT_H
#define DRIVER_PROGRAM_SUPPORT_H

#include "Fd.h"
#include "MediaProtocol.h"

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

// A child process that runs the driver program. It is killed if the test leaves it running.
class CDriverProgram
{
public:
    explicit CDriverProgram(const std::vector<std::string>& vArguments);
    ~CDriverProgram();
    CDriverProgram(const CDriverProgram&) = delete;
    CDriverProgram& operator=(const CDriverProgram&) = delete;

    // Waits for the line that scripts wait for.
    bool WaitReady();
    void Signal(int nSignal);
    pid_t ProcessID() const { return m_nProcessID; }

    // Waits for its end. The exit code, or minus the signal that killed it.
    std::optional<int> WaitExit();

    // Number of descriptors that it has open, and the memory that it has in use.
    std::size_t OpenDescriptors() const;
    std::size_t ResidentBytes() const;

    // All of its standard error, after its end.
    std::string Errors();

private:
    pid_t m_nProcessID = -1;
    CFd m_fdOut;
    CFd m_fdErr;
};

// What the library does on the wire, and no more. One per process, under its own process id.
class CRawClient
{
public:
    CRawClient();
    ~CRawClient();
    CRawClient(const CRawClient&) = delete;
    CRawClient& operator=(const CRawClient&) = delete;

    // Opens the request pipe and connects. False if there is no driver or no answer.
    bool Connect();

    // Sends a request, stamped with the connect id and the next sequence number, once the pipe has room.
    bool Send(structMICMD cmd);
    std::optional<structMIRSP> WaitResponse();

    // Sends a request, stamped with the next sequence number, and waits for the response that
    // answers it. None when it cannot be sent or is not answered.
    std::optional<structMIRSP> Request(structMICMD cmd);
    std::optional<structMIEVT> WaitEvent();

    // Ids, 0 when refused; the others say whether it was done.
    int OpenStream(const std::string& strCallID, std::uint32_t nLegID);
    int OpenFile(const std::string& strPath);
    bool PlayClip(int nStreamID, int nFileID, std::uint32_t nOffset, std::uint32_t nLength);
    bool PlayFile(int nStreamID, const std::string& strPath);
    bool RecordFile(int nStreamID, const std::string& strPath, std::uint32_t nMaxSamples);

    int ConnectID() const;
    std::uint32_t Sequence() const;
    int RequestFd() const;

private:
    bool IsDone(const structMICMD& cmd);

    std::string m_strRspPipe;
    std::string m_strEvtPipe;
    CFd m_fdReq;
    CFd m_fdRsp;
    CFd m_fdEvt;
    int m_nConnectID = -1;
    std::uint32_t m_nSequenceNo = 0;
};

// A child process of the test. It is killed if the test leaves it running.
class CChildProcess
{
public:
    // The child's side: bytes to and from the parent.
    class CParent
    {
    public:
        explicit CParent(int nFd) : m_nFd(nFd) {}

        void Report() const;    // what the parent waits for with WaitReport
        bool HasAsked() const;  // a byte of Ask is there
        bool WaitAsked() const; // takes one; false when the parent has closed its side

    private:
        int m_nFd;
    };
    using Work = std::function<bool(const CParent& parent)>;

    // Does the work in the child.
    explicit CChildProcess(const Work& work);
    ~CChildProcess();
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    pid_t ProcessID() const;
    bool WaitReport();
    void Ask();

    // Closes the parent's side and waits for the child's end. Whether its work was good.
    bool WaitEnd();
    void Kill();

private:
    pid_t m_nProcessID = -1;
    CFd m_fdChild;
};

#endif
