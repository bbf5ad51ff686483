// The driver as a program, bare clients on real FIFOs, and child processes for them to live in.
#ifndef DRIVER_PROGRAM_SUPPORT_H
#define DRIVER_PROGRAM_SUPPORT_H

#include "Child.h"
#include "Fd.h"
#include "MediaProtocol.h"

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

// The driver program. It is killed if the test leaves it running.
class CDriverProgram : public CChild
{
public:
    explicit CDriverProgram(const std::vector<std::string>& vArguments);

    // Waits for the line that scripts wait for.
    bool waitReady();

    // Number of descriptors that it has open, and the memory that it has in use.
    size_t openDescriptors() const;
    size_t residentBytes() const;

    // All of its standard error, after its end.
    std::string errors();

private:
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
    bool connect();

    // Sends a request, stamped with the connect id and the next sequence number, once the pipe has room.
    bool send(structMICMD cmd);
    std::optional<structMIRSP> waitResponse();

    // Sends a request, stamped with the next sequence number, and waits for the response that
    // answers it. None when it cannot be sent or is not answered.
    std::optional<structMIRSP> request(structMICMD cmd);
    std::optional<structMIEVT> waitEvent();

    // Ids, 0 when refused; the others say whether it was done.
    int openStream(const std::string& strCallID, uint32_t nLegID);
    int openFile(const std::string& strPath);
    bool playClip(int nStreamID, int nFileID, uint32_t nOffset, uint32_t nLength);
    bool playFile(int nStreamID, const std::string& strPath);
    bool recordFile(int nStreamID, const std::string& strPath, uint32_t nMaxSamples);

    int connectId() const;
    uint32_t sequence() const;
    int requestFd() const;

private:
    bool isDone(const structMICMD& cmd);

    std::string m_strRspPipe;
    std::string m_strEvtPipe;
    CFd m_fdReq;
    CFd m_fdRsp;
    CFd m_fdEvt;
    int m_nConnectID = -1;
    uint32_t m_nSequenceNo = 0;
};

// A child process that talks with the test. It is killed if the test leaves it running.
class CChildProcess : public CChild
{
public:
    // The child's side: bytes to and from the parent.
    class CParent
    {
    public:
        explicit CParent(int nFd) : m_nFd(nFd) {}

        void report() const;    // what the parent waits for with waitReport
        bool hasAsked() const;  // a byte of ask is there
        bool waitAsked() const; // takes one; false when the parent has closed its side

    private:
        int m_nFd;
    };
    using Work = std::function<bool(const CParent& parent)>;

    // Does the work in the child.
    explicit CChildProcess(const Work& work);

    bool waitReport();
    void ask();

    // Closes the parent's side and waits for the child's end. Whether its work was good.
    bool waitEnd();

private:
    CFd m_fdChild;
};

#endif
