// Writes the SIP messages that come and go into a file for Wireshark.
#ifndef SIP_TRACE_H
#define SIP_TRACE_H

#include <cstdint>
#include <fstream>
#include <functional>
#include <string>

struct CSipEndpoint
{
    std::string m_strAddress;
    unsigned m_uPort = 0;
};

// Messages are taken from the stack's log of them, decrypted ones too, so that line ends within bodies come out
// as CR LF whatever they were.
class CSipTrace
{
public:
    // Our own end of the traffic with a peer by a transport.
    using Local = std::function<CSipEndpoint(const std::string& strTransport, const std::string& strPeer)>;

    explicit CSipTrace(Local local) : m_local(std::move(local)) {}

    // False, with the reason in strError. What was in the file is gone.
    bool open(const std::string& strFile, std::string& strError);

    // What the stack logs, in pieces of any size.
    void takeLog(const std::string& strText);

private:
    void takeLine(const std::string& strLine);
    bool takeHead(const std::string& strLine);
    void writeMessage();

    const Local m_local;
    std::ofstream m_file;
    std::string m_strLine;
    std::string m_strMessage;
    size_t m_nBytes = 0;
    bool m_bReceived = false;
    std::string m_strTransport;
    CSipEndpoint m_peer;
    enum class EState
    {
        Outside,
        Head, // the line that sets off the message is next
        Inside
    } m_eState = EState::Outside;
};

#endif
