// The media of one leg of a call: what comes from the far end and what goes there, tick by tick.
#include "RtpSession.h"

#include "G711.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

namespace
{
constexpr unsigned JITTER_SAMPLES_PER_MS = 8;
constexpr uint64_t TICKS_PER_SECOND = 50;
constexpr size_t MAX_RTCP_PER_READ = 16;

// A name for reports that tells nothing about the machine.
std::string randomName()
{
    std::random_device random;
    return fmt::format("{:08x}{:08x}", random(), random());
}
} // namespace

std::shared_ptr<CRtpSession> CRtpSession::create(EKind eKind, CRtpPorts& ports, std::shared_ptr<CRtpPort> pPort,
                                                 CFd fdRtcp, CPoller* pPoller, CListener* pListener,
                                                 const CMediaSettings& settings, std::string& strError)
{
    std::shared_ptr<CRtpSession> pSession(
        new CRtpSession(eKind, ports, std::move(pPort), std::move(fdRtcp), pListener));
    const bool bTable = eKind == EKind::Table;
    if (!(bTable ? pSession->m_pPort->join(settings.m_remote, *pSession) : pSession->m_pPort->joinAll(*pSession)))
    {
        strError = bTable ? fmt::format("another channel is open between {} and {}", pSession->local().text(),
                                        settings.m_remote.text())
                          : fmt::format("{} is taken", pSession->local().text());
        pSession->m_eState = EState::Ended;
        return nullptr;
    }
    if (bTable)
        pSession->m_lock.fix(settings.m_remote);
    else
        pSession->m_lock.learn(settings.m_remote);
    pSession->apply(settings);
    if (pPoller != nullptr && pSession->m_fdRtcp.isOpen())
        pSession->m_watchRtcp =
            pPoller->watch(pSession->m_fdRtcp.get(), EPOLLIN, [pRaw = pSession.get()](uint32_t) { pRaw->readRtcp(); });
    return pSession;
}

CRtpSession::CRtpSession(EKind eKind, CRtpPorts& ports, std::shared_ptr<CRtpPort> pPort, CFd fdRtcp,
                         CListener* pListener)
    : m_eKind(eKind), m_ports(ports), m_local(pPort->local()), m_pPort(std::move(pPort)), m_pListener(pListener),
      m_intake(m_counters), m_keysIn(*this), m_rtcp(randomName()), m_fdRtcp(std::move(fdRtcp)),
      m_pEvents(pListener != nullptr ? std::make_unique<CEvents>() : nullptr)
{
    m_said.fill(ULAW_SILENCE);
    m_ullMediaTick = m_ports.tick();
}

CRtpSession::~CRtpSession()
{
    end();
}

void CRtpSession::apply(const CMediaSettings& settings)
{
    m_settings = settings;
    m_intake.setFormats(settings.m_vReceive);
    m_sender.setFormat(*settings.m_pSendCodec, settings.m_nSendPayload, settings.m_nPtimeMs);
}

void CRtpSession::update(const CMediaSettings& settings)
{
    if (isEnded())
        return;
    const bool bDirection = settings.m_eDirection != m_settings.m_eDirection;
    if (bDirection || !(settings.m_remote == m_settings.m_remote))
    {
        m_lock.learn(settings.m_remote.isKnown() ? settings.m_remote : m_lock.remote());
        m_rtcpRemote = CNetAddress();
    }
    if (bDirection)
    {
        m_ullMediaTick = m_ports.tick();
        m_eState = EState::Waiting;
    }
    apply(settings);
}

void CRtpSession::end()
{
    if (isEnded())
        return;
    if (m_eKind == EKind::Call)
        sendReport(true);
    m_eState = EState::Ended;
    m_watchRtcp = CPoller::CWatch();
    m_fdRtcp.close();
    if (m_eKind == EKind::Table)
        m_pPort->leave(m_settings.m_remote);
    else
        m_pPort->leaveAll();
    m_pPort.reset();
    m_said.fill(ULAW_SILENCE);
    m_sender.dropTick();
}

bool CRtpSession::listens() const
{
    return m_settings.m_eDirection == EDirection::SendReceive || m_settings.m_eDirection == EDirection::ReceiveOnly;
}

bool CRtpSession::sends() const
{
    return m_lock.remote().isKnown() &&
           (m_settings.m_eDirection == EDirection::SendReceive || m_settings.m_eDirection == EDirection::SendOnly);
}

const char* CRtpSession::stateText() const
{
    switch (m_eState)
    {
    case EState::Waiting: return "waiting";
    case EState::Flowing: return "flowing";
    case EState::Silent: return "silent";
    default: return "ended";
    }
}

void CRtpSession::onDatagram(std::span<uint8_t> bytes, const CNetAddress& from)
{
    if (m_settings.m_bRtcpMux && isRtcp(bytes))
    {
        onRtcp(bytes, from);
        return;
    }
    if (const std::optional<CRtpPacket> packet = parseRtpPacket(bytes))
        onRtp(*packet, from);
    else
        ++m_counters.m_ullMalformed;
}

void CRtpSession::onRtp(const CRtpPacket& packet, const CNetAddress& from)
{
    if (!m_intake.knows(packet.m_header.m_nPayloadType))
    {
        ++m_counters.m_ullOtherPayloads;
        return;
    }
    bool bMoved = false;
    if (!m_lock.accept(from, m_ports.tick(), bMoved))
    {
        ++m_counters.m_ullStrangers;
        return;
    }
    if (bMoved)
        post({CSessionEvent::EKind::Source, 0, 0, from});
    noteMedia();
    if (!listens())
        return;
    const auto nNow = static_cast<uint32_t>(m_ports.tick() * CRtpSender::TICK);
    const CRtpIntake::EArrival eArrival = m_intake.onRtp(packet, nNow);
    if (eArrival == CRtpIntake::EArrival::NewSource || eArrival == CRtpIntake::EArrival::NewOther)
        m_keysIn.restart();
    const bool bOther = eArrival == CRtpIntake::EArrival::Other || eArrival == CRtpIntake::EArrival::NewOther;
    const auto& vKeys = m_settings.m_vKeyPayloads;
    if (bOther && std::find(vKeys.begin(), vKeys.end(), packet.m_header.m_nPayloadType) != vKeys.end() &&
        !m_keysIn.onPacket(packet.m_header.m_nTimestamp, packet.m_header.m_bMarker, packet.m_payload))
        ++m_counters.m_ullMalformed;
}

void CRtpSession::onTick(bool)
{
    m_keysIn.onTick();
    if (m_intake.isListening())
        m_intake.get(m_said);
    if (m_eKind == EKind::Call)
    {
        if (m_fdRtcp.isOpen() && !m_watchRtcp.isOn())
            readRtcp();
        checkMedia();
    }
}

void CRtpSession::onTickEnd()
{
    m_bInterrupted = false;
    if (!sends())
    {
        m_sender.dropTick();
    }
    else
    {
        bool bAllDone = false;
        const auto key = m_settings.m_sendKeys ? m_keysOut.onTick(bAllDone) : std::nullopt;
        if (key)
            m_sender.endTickWith(m_ports.tick(), *key, *m_settings.m_sendKeys, *this);
        else
            m_sender.endTick(m_ports.tick(), m_eKind == EKind::Call, *this);
        if (bAllDone)
            post({CSessionEvent::EKind::DigitsSent, 0, 0, {}});
    }
    if (m_eKind == EKind::Call && m_rtcp.isDue(m_ports.tick()))
        sendReport(false);
}

void CRtpSession::sendRtp(std::span<uint8_t> packet)
{
    m_pPort->send(packet, m_lock.remote());
}

bool CRtpSession::beginListening()
{
    if (m_nListeners == 0 && !m_intake.beginListening(size_t{m_settings.m_nJitterMs} * JITTER_SAMPLES_PER_MS))
        return false;
    ++m_nListeners;
    return true;
}

void CRtpSession::endListening()
{
    if (m_nListeners == 0 || --m_nListeners > 0)
        return;
    m_intake.endListening();
    m_said.fill(ULAW_SILENCE);
}

bool CRtpSession::press(std::string_view keys, unsigned nMs, unsigned nGapMs)
{
    return !isEnded() && m_settings.m_sendKeys && m_keysOut.press(keys, nMs, nGapMs);
}

void CRtpSession::onKeyDown(char cKey)
{
    m_bInterrupted |= m_settings.m_strInterruptKeys.find(cKey) != std::string::npos;
}

void CRtpSession::onKeyUp(char cKey, unsigned nMs)
{
    post({CSessionEvent::EKind::Digit, cKey, nMs, {}});
}

void CRtpSession::noteMedia()
{
    m_ullMediaTick = m_ports.tick();
    if (m_eState == EState::Silent)
        post({CSessionEvent::EKind::Media, 0, 0, {}});
    m_eState = EState::Flowing;
}

void CRtpSession::checkMedia()
{
    const uint64_t ullSilent = (m_ports.tick() - m_ullMediaTick) / TICKS_PER_SECOND;
    if (m_settings.m_nNoMediaS == 0 || m_eState == EState::Silent || !listens() || ullSilent < m_settings.m_nNoMediaS)
        return;
    m_eState = EState::Silent;
    post({CSessionEvent::EKind::NoMedia, 0, static_cast<unsigned>(ullSilent), {}});
}

void CRtpSession::readRtcp()
{
    std::array<uint8_t, RTP_MAX_DATAGRAM> bytes;
    CNetAddress from;
    for (size_t n = 0; n < MAX_RTCP_PER_READ; ++n)
    {
        socklen_t nAddress = CNetAddress::CAPACITY;
        const ssize_t nSize =
            ::recvfrom(m_fdRtcp.get(), bytes.data(), bytes.size(), MSG_DONTWAIT, from.get(), &nAddress);
        if (nSize < 0)
            return;
        onRtcp(std::span(bytes).first(static_cast<size_t>(nSize)), from);
    }
}

void CRtpSession::onRtcp(std::span<const uint8_t> bytes, const CNetAddress& from)
{
    // Reports of the host that the packets come from; their port is nobody's business.
    if (!m_lock.remote().isKnown() || !from.hasHostOf(m_lock.remote()))
    {
        ++m_counters.m_ullStrangers;
        return;
    }
    if (!m_rtcp.onPacket(bytes, m_sender.source(), std::chrono::system_clock::now()))
    {
        ++m_counters.m_ullMalformed;
        return;
    }
    m_rtcpRemote = from;
    noteMedia();
}

void CRtpSession::sendReport(bool bBye)
{
    const CNetAddress& remote = m_lock.remote();
    if (!remote.isKnown())
        return;
    std::array<uint8_t, RTCP_MAX_REPORT> bytes;
    const size_t nSize =
        m_rtcp.report(m_sender, m_intake.source(), m_ports.tick(), std::chrono::system_clock::now(), bBye, bytes);
    const auto report = std::span(bytes).first(nSize);
    if (m_settings.m_bRtcpMux)
    {
        m_pPort->send(report, remote);
        return;
    }
    CNetAddress to = m_rtcpRemote.isKnown()              ? m_rtcpRemote
                     : m_settings.m_rtcpRemote.isKnown() ? m_settings.m_rtcpRemote
                                                         : remote.withPort(static_cast<uint16_t>(remote.port() + 1));
    ::sendto(m_fdRtcp.get(), report.data(), report.size(), MSG_DONTWAIT | MSG_NOSIGNAL, to.get(), to.size());
}

void CRtpSession::post(const CSessionEvent& event)
{
    if (m_pListener == nullptr || m_nEvents == m_pEvents->size())
        return;
    (*m_pEvents)[m_nEvents++] = event;
    m_ports.wantSettle(*this);
}

void CRtpSession::onSettle()
{
    const CEvents events = *m_pEvents;
    const size_t nEvents = m_nEvents;
    m_nEvents = 0;
    CListener* pListener = m_pListener;
    // The first of them may end this session.
    for (size_t n = 0; n < nEvents; ++n)
        pListener->onSessionEvent(events[n]);
}
