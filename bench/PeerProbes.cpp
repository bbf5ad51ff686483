// The exchange of a request and a response record by other means: a D-Bus daemon, ZeroMQ.
#include "BareClient.h"
#include "Child.h"
#include "Probe.h"

#include <sdbus-c++/sdbus-c++.h>
#include <zmq.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{
using CRecord = std::vector<uint8_t>;

constexpr size_t REQUEST_SIZE = sizeof(structMICMD);
constexpr size_t RESPONSE_SIZE = sizeof(structMIRSP);

void require(bool bOk, const char* pWhat)
{
    if (!bOk)
        throw std::runtime_error(pWhat);
}

// The peer in another process; the exchange must have been carried out once before it is measured.
class CForeignExchangeProbe : public CProbe
{
public:
    std::chrono::nanoseconds run(int64_t nOperations) final
    {
        const auto start = monotonicNow();
        for (int64_t n = 0; n < nOperations; ++n)
            exchange();
        return monotonicNow() - start;
    }

protected:
    virtual void exchange() = 0;
};

constexpr const char* BUS_ADDRESS = "unix:path=/tmp/bench-bus";
constexpr const char* BUS_SETTINGS = "/tmp/bench-bus.conf";
constexpr const char* BUS_NAME = "bench.Peer";
constexpr const char* BUS_OBJECT = "/bench/peer";
constexpr const char* BUS_METHOD = "Exchange";

// A bus of our own: nothing is started by it and nobody else is on it. It complains of limits that do not matter here.
void runBusDaemon()
{
    std::ofstream(BUS_SETTINGS) << "<busconfig><listen>" << BUS_ADDRESS << "</listen><policy context='default'>"
                                << "<allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/>"
                                << "<allow own='*'/></policy></busconfig>\n";
    const CFd fdNull(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    ::dup2(fdNull.get(), STDERR_FILENO);
    ::execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", "--config-file", BUS_SETTINGS, nullptr);
}

// The daemon is only just starting.
template <class ATTEMPT> auto persistently(const ATTEMPT& attempt)
{
    const auto limit = monotonicNow() + std::chrono::seconds(5);
    for (;;)
    {
        try
        {
            return attempt();
        }
        catch (const sdbus::Error&)
        {
            if (monotonicNow() > limit)
                throw;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

std::unique_ptr<sdbus::IConnection> connectToBus()
{
    return persistently([] { return sdbus::createSessionBusConnectionWithAddress(BUS_ADDRESS); });
}

void runBusPeer()
{
    const auto pConnection = connectToBus();
    const auto pObject = sdbus::createObject(*pConnection, BUS_OBJECT);
    const CRecord response(RESPONSE_SIZE);
    pObject->registerMethod(BUS_METHOD).onInterface(BUS_NAME).implementedAs([&response](const CRecord& request) {
        require(request.size() == REQUEST_SIZE, "a request of another size");
        return response;
    });
    pObject->finishRegistration();
    pConnection->requestName(BUS_NAME);
    pConnection->enterEventLoop();
}

// Does its work in a process of its own.
class CPartner : public CChild
{
public:
    explicit CPartner(void (*work)())
    {
        const bool bStarted = start([work] {
            work();
            return 0;
        });
        require(bStarted, "no child process");
    }
};

class CBusProbe : public CForeignExchangeProbe
{
public:
    CBusProbe()
    {
        persistently([this] { exchange(); });
    }

private:
    void exchange() override
    {
        CRecord response;
        m_pProxy->callMethod(BUS_METHOD).onInterface(BUS_NAME).withArguments(m_request).storeResultsTo(response);
        require(response.size() == RESPONSE_SIZE, "a response of another size");
    }

    const CPartner m_daemon{runBusDaemon};
    const CPartner m_peer{runBusPeer};
    const std::unique_ptr<sdbus::IConnection> m_pConnection = connectToBus();
    const std::unique_ptr<sdbus::IProxy> m_pProxy = sdbus::createProxy(*m_pConnection, BUS_NAME, BUS_OBJECT);
    const CRecord m_request = CRecord(REQUEST_SIZE);
};

// A ZeroMQ socket in a context of its own.
class CZeroMqSocket
{
public:
    explicit CZeroMqSocket(int nType) : m_pContext(::zmq_ctx_new()), m_pSocket(::zmq_socket(m_pContext, nType))
    {
        require(m_pSocket != nullptr, "no ZeroMQ socket");
    }
    ~CZeroMqSocket()
    {
        const int nLinger = 0;
        ::zmq_setsockopt(m_pSocket, ZMQ_LINGER, &nLinger, sizeof(nLinger));
        ::zmq_close(m_pSocket);
        ::zmq_ctx_term(m_pContext);
    }
    CZeroMqSocket(const CZeroMqSocket&) = delete;
    CZeroMqSocket& operator=(const CZeroMqSocket&) = delete;

    void* get() const { return m_pSocket; }

    template <size_t SIZE> void send(const std::array<uint8_t, SIZE>& record)
    {
        require(::zmq_send(m_pSocket, record.data(), SIZE, 0) == static_cast<int>(SIZE), "ZeroMQ cannot send");
    }

    template <size_t SIZE> void receive(std::array<uint8_t, SIZE>& record)
    {
        require(::zmq_recv(m_pSocket, record.data(), SIZE, 0) == static_cast<int>(SIZE), "ZeroMQ cannot receive");
    }

private:
    void* m_pContext;
    void* m_pSocket;
};

constexpr const char* ZEROMQ_ADDRESS = "ipc:///tmp/bench-zeromq";

void runZeroMqPeer()
{
    CZeroMqSocket socket(ZMQ_REP);
    require(::zmq_bind(socket.get(), ZEROMQ_ADDRESS) == 0, "ZeroMQ cannot bind");
    std::array<uint8_t, REQUEST_SIZE> request;
    const std::array<uint8_t, RESPONSE_SIZE> response = {};
    for (;;)
    {
        socket.receive(request);
        socket.send(response);
    }
}

class CZeroMqProbe : public CForeignExchangeProbe
{
public:
    CZeroMqProbe()
    {
        require(::zmq_connect(m_socket.get(), ZEROMQ_ADDRESS) == 0, "ZeroMQ cannot connect");
        exchange();
    }

private:
    void exchange() override
    {
        m_socket.send(m_request);
        m_socket.receive(m_response);
    }

    const CPartner m_peer{runZeroMqPeer}; // before this process has threads of ZeroMQ
    CZeroMqSocket m_socket{ZMQ_REQ};
    const std::array<uint8_t, REQUEST_SIZE> m_request = {};
    std::array<uint8_t, RESPONSE_SIZE> m_response;
};
} // namespace

void addPeerProbes(CProbeTable& table)
{
    // Of the group of the bare exchange, which is their limit.
    table.add(
        "exchange/dbus", [] { return std::make_unique<CBusProbe>(); });
    table.add("exchange/zeromq", [] { return std::make_unique<CZeroMqProbe>(); });
}
