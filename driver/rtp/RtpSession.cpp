// The media of one leg of a call: what comes from the far end and what goes there, tick by tick.
#include "RtpSession.h"

#include "G711.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

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
    if (!pSession->apply(settings, strError))
        return nullptr;
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

bool CRtpSession::apply(const CMediaSettings& settings, std::string& strError)
{
    // Keys that stay have counted packets, which must go on.
    if (!settings.m_srtp)
        m_pSrtp.reset();
    else if (!m_pSrtp || !(m_pSrtp->keys() == *settings.m_srtp))
    {
        auto pSrtp = CSrtp::create(*settings.m_srtp, strError);
        if (!pSrtp)
            return false;
        m_pSrtp = std::move(pSrtp);
    }
    m_settings = settings;
    std::vector<CRtpIntake::CFormat> vFormats = settings.m_vReceive;
    if (settings.m_comfortNoise)
        vFormats.push_back({*settings.m_comfortNoise, nullptr});
    m_intake.setFormats(vFormats);
    m_sender.setFormat(*settings.m_pSendCodec, settings.m_nSendPayload, settings.m_nPtimeMs);
    strError = "no memory to listen";
    return setDetectors();
}

bool CRtpSession::setDetectors()
{
    const bool bKeys = m_eKind == EKind::Call && m_settings.m_vKeyPayloads.empty() && listens();
    if (bKeys && !m_pInBandKeys)
    {
        if (!beginListening())
            return false;
        m_pInBandKeys = std::make_unique<CInBandKeys>(static_cast<CKeyListener&>(*this));
    }
    else if (!bKeys && m_pInBandKeys)
    {
        m_pInBandKeys.reset();
        endListening();
    }
    const bool bSpeech = m_settings.m_bSpeech || m_settings.m_bInterruptSpeech;
    if (bSpeech && !m_pSpeech)
    {
        if (!beginListening())
            return false;
        m_pSpeech = std::make_unique<CSpeechDetector>();
    }
    else if (!bSpeech && m_pSpeech)
    {
        m_pSpeech.reset();
        endListening();
    }
    return true;
}

bool CRtpSession::update(const CMediaSettings& settings, std::string& strError)
{
    strError = "the session has ended";
    if (isEnded())
        return false;
    const bool bDirection = settings.m_eDirection != m_settings.m_eDirection;
    const bool bRemote = !(settings.m_remote == m_settings.m_remote);
    if (!apply(settings, strError))
        return false;
    if (bDirection || bRemote)
    {
        m_lock.learn(bRemote ? settings.m_remote : m_lock.remote());
        m_rtcpRemote = CNetAddress();
    }
    if (bDirection)
    {
        m_ullMediaTick = m_ports.tick();
        m_eState = EState::Waiting;
    }
    return true;
}

void CRtpSession::end()
{
    if (isEnded())
        return;
    if (m_eKind == EKind::Call)
        sendReport(true);
    unbridge();
    setTap(nullptr);
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
    if (m_pSrtp)
        bytes = bytes.first(m_pSrtp->unprotect(bytes));
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

void CRtpSession::onTick(bool bSkipped)
{
    m_keysIn.onTick();
    if (m_intake.isListening())
    {
        m_intake.get(m_said);
        detect();
    }
    if (bSkipped)
        tap({});
    if (m_eKind == EKind::Call)
    {
        if (m_fdRtcp.isOpen() && !m_watchRtcp.isOn())
            readRtcp();
        checkMedia();
    }
}

void CRtpSession::detect()
{
    if (m_pInBandKeys)
        m_pInBandKeys->onSamples(m_said);
    if (!m_pSpeech || !m_pSpeech->onSamples(m_said))
        return;
    const bool bBegins = m_pSpeech->isSpeaking();
    m_bInterrupted |= bBegins && m_settings.m_bInterruptSpeech;
    if (m_settings.m_bSpeech)
        post({bBegins ? CSessionEvent::EKind::SpeechBegins : CSessionEvent::EKind::SpeechEnds, 0, 0, {}});
}

void CRtpSession::onJump(uint64_t ullTicks)
{
    m_intake.skip(ullTicks * TICK);
    if (m_pTap != nullptr)
        m_pTap->onJump(ullTicks);
}

void CRtpSession::onTickEnd()
{
    m_bInterrupted = false;
    if (sends())
        sendTick();
    else
    {
        tap({});
        m_sender.dropTick();
    }
    if (m_eKind == EKind::Call && m_rtcp.isDue(m_ports.tick()))
        sendReport(false);
}

void CRtpSession::sendTick()
{
    bool bAllDone = false;
    const auto key = m_settings.m_sendKeys ? m_keysOut.onTick(bAllDone) : std::nullopt;
    if (key)
    {
        tap({});
        m_sender.endTickWith(m_ports.tick(), *key, *m_settings.m_sendKeys, *this);
    }
    else
    {
        if (m_pBridged != nullptr && !m_sender.hasHeard())
            m_sender.hear(m_pBridged->said());
        tap(m_sender.heard());
        m_sender.endTick(m_ports.tick(), m_eKind == EKind::Call, *this);
    }
    if (bAllDone)
        post({CSessionEvent::EKind::DigitsSent, 0, 0, {}});
}

// What is missing of what was heard is silence.
void CRtpSession::tap(std::span<const uint8_t> heard)
{
    if (m_pTap == nullptr)
        return;
    std::array<uint8_t, TICK> abHeard;
    std::fill(std::copy(heard.begin(), heard.end(), abHeard.begin()), abHeard.end(), ULAW_SILENCE);
    m_pTap->onMedia(m_said, abHeard);
    if (m_pTap->wantsService())
        m_ports.wantSettle(*this);
}

void CRtpSession::sendRtp(std::span<uint8_t> packet)
{
    if (!m_pSrtp)
    {
        m_pPort->send(packet, m_lock.remote());
        return;
    }
    alignas(SRTP_ALIGNMENT) std::array<uint8_t, RTP_MAX_SENT + SRTP_GROWTH> abProtected;
    std::copy(packet.begin(), packet.end(), abProtected.begin());
    const size_t nSize = m_pSrtp->protect(abProtected, packet.size());
    if (nSize > 0 && nSize <= RTP_MAX_SENT)
        m_pPort->send(std::span(abProtected).first(nSize), m_lock.remote());
}

bool CRtpSession::bridge(CRtpSession& one, CRtpSession& other)
{
    if (one.isEnded() || other.isEnded() || one.m_pBridged != nullptr || other.m_pBridged != nullptr || &one == &other)
        return false;
    if (!one.beginListening())
        return false;
    if (!other.beginListening())
    {
        one.endListening();
        return false;
    }
    one.m_pBridged = &other;
    other.m_pBridged = &one;
    return true;
}

void CRtpSession::unbridge()
{
    if (m_pBridged == nullptr)
        return;
    CRtpSession& other = *std::exchange(m_pBridged, nullptr);
    other.m_pBridged = nullptr;
    other.endListening();
    endListening();
}

bool CRtpSession::setTap(CTap* pTap)
{
    if (pTap != nullptr && m_pTap == nullptr && !beginListening())
        return false;
    if (pTap == nullptr && m_pTap != nullptr)
        endListening();
    m_pTap = pTap;
    return true;
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
    alignas(SRTP_ALIGNMENT) std::array<uint8_t, RTP_MAX_DATAGRAM> bytes;
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

void CRtpSession::onRtcp(std::span<uint8_t> bytes, const CNetAddress& from)
{
    // Reports of the host that the packets come from; their port is nobody's business.
    if (!m_lock.remote().isKnown() || !from.hasHostOf(m_lock.remote()))
    {
        ++m_counters.m_ullStrangers;
        return;
    }
    if (m_pSrtp)
        bytes = bytes.first(m_pSrtp->unprotectRtcp(bytes));
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
    alignas(SRTP_ALIGNMENT) std::array<uint8_t, RTCP_MAX_REPORT + SRTP_GROWTH> bytes;
    size_t nSize = m_rtcp.report(m_sender, m_intake.source(), m_ports.tick(), std::chrono::system_clock::now(), bBye,
                                 std::span(bytes).first<RTCP_MAX_REPORT>());
    if (m_pSrtp)
        nSize = m_pSrtp->protectRtcp(bytes, nSize);
    if (nSize == 0)
        return;
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
    if (m_pTap != nullptr && m_pTap->wantsService())
        m_pTap->service();
    if (m_nEvents == 0)
        return;
    const CEvents events = *m_pEvents;
    const size_t nEvents = std::exchange(m_nEvents, 0);
    CListener* pListener = m_pListener;
    // The first of them may end this session.
    for (size_t n = 0; n < nEvents; ++n)
        pListener->onSessionEvent(events[n]);
}
