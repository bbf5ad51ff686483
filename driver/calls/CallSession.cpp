// The session of one leg of a call: its media, its owner, and its events.
#include "CallSession.h"

#include <chrono>

namespace
{
using nlohmann::ordered_json;

const char* directionText(EDirection eDirection)
{
    switch (eDirection)
    {
    case EDirection::SendOnly: return "sendonly";
    case EDirection::ReceiveOnly: return "recvonly";
    case EDirection::Inactive: return "inactive";
    default: return "sendrecv";
    }
}

const char* sourceText(CSourceLock::EState eState)
{
    switch (eState)
    {
    case CSourceLock::EState::Learning: return "learning";
    case CSourceLock::EState::Open: return "open";
    default: return "locked";
    }
}

double jitterMs(uint32_t nJitter, unsigned nClockRate)
{
    return static_cast<double>(nJitter) * 1000 / nClockRate;
}

ordered_json receivedJson(const CRtpSession& media)
{
    const CRtpCounters& counters = media.counters();
    ordered_json json = {{"packets", counters.m_ullReceived},
                         {"strangers", counters.m_ullStrangers},
                         {"malformed", counters.m_ullMalformed},
                         {"other_payloads", counters.m_ullOtherPayloads},
                         {"strays", counters.m_ullStrays},
                         {"duplicates", counters.m_ullDuplicates},
                         {"late", counters.m_ullLate}};
    if (const CRtpSource* pSource = media.source())
    {
        json["lost"] = pSource->lost();
        json["jitter_ms"] = jitterMs(pSource->jitter(), media.settings().m_pSendCodec->m_nClockRate);
    }
    return json;
}

ordered_json rtcpJson(const CRtpSession& media)
{
    const CRtcpSide::CQuality& quality = media.quality();
    ordered_json json = {
        {"sent", quality.m_ullReportsSent}, {"received", quality.m_ullReportsReceived}, {"bye", quality.m_bBye}};
    if (quality.m_roundTrip)
        json["round_trip_ms"] = static_cast<double>(quality.m_roundTrip->count()) / 1000;
    if (quality.m_theirs)
    {
        json["lost"] = quality.m_theirs->m_nLost;
        json["jitter_ms"] = jitterMs(quality.m_theirs->m_nJitter, media.settings().m_pSendCodec->m_nClockRate);
    }
    return json;
}
} // namespace

bool CCallSession::open(CRtpPorts& ports, CPoller* pPoller, std::shared_ptr<CRtpPort> pPort, CFd fdRtcp,
                        const CMediaSettings& settings, std::string& strError)
{
    m_pMedia = CRtpSession::create(CRtpSession::EKind::Call, ports, std::move(pPort), std::move(fdRtcp), pPoller, this,
                                   settings, strError);
    return m_pMedia != nullptr;
}

std::shared_ptr<CRtpSession> CCallSession::takeView()
{
    if (!m_view.expired())
        return nullptr;
    // An owner of its own, so that its end can be seen.
    std::shared_ptr<CRtpSession> pView(m_pMedia.get(), [pMedia = m_pMedia](CRtpSession*) {});
    m_view = pView;
    return pView;
}

void CCallSession::tell(ordered_json event)
{
    event["call"] = m_name.first;
    event["leg"] = m_name.second;
    m_onEvent(*this, m_events.add(std::move(event)));
}

bool CCallSession::record(CExecutor& disk, const std::string& strFile)
{
    endRecord();
    if (strFile.empty())
        return true;
    m_pRecorder =
        CCallRecorder::begin(disk, strFile, [pWeak = weak_from_this(), strFile](bool bOk, uint64_t ullSamples) {
            if (const auto pThis = pWeak.lock())
                pThis->onRecorded(strFile, bOk, ullSamples);
        });
    return m_pMedia->setTap(m_pRecorder.get());
}

void CCallSession::endRecord()
{
    m_pMedia->setTap(nullptr);
    if (m_pRecorder)
        m_pRecorder->end(shared_from_this());
    m_pRecorder.reset();
}

void CCallSession::onRecorded(const std::string& strFile, bool bOk, uint64_t ullSamples)
{
    tell({{"event", "recorded"}, {"file", strFile}, {"ok", bOk}, {"samples", ullSamples}});
    if (m_strEndReason)
        tell({{"event", "ended"}, {"reason", *m_strEndReason}});
}

// The end of its recording comes before the end of the session.
void CCallSession::end(const std::string& strReason)
{
    const bool bRecords = m_pRecorder && !m_pRecorder->isDone();
    if (bRecords)
        m_strEndReason = strReason;
    endRecord();
    m_pMedia->end();
    if (!bRecords)
        tell({{"event", "ended"}, {"reason", strReason}});
}

void CCallSession::onSessionEvent(const CSessionEvent& event)
{
    switch (event.m_eKind)
    {
    case CSessionEvent::EKind::Digit:
        tell({{"event", "digit"}, {"digit", std::string(1, event.m_cDigit)}, {"ms", event.m_nNumber}});
        break;
    case CSessionEvent::EKind::DigitsSent: tell({{"event", "digits_sent"}}); break;
    case CSessionEvent::EKind::SpeechBegins: tell({{"event", "speech"}, {"begins", true}}); break;
    case CSessionEvent::EKind::SpeechEnds: tell({{"event", "speech"}, {"begins", false}}); break;
    case CSessionEvent::EKind::Source: tell({{"event", "source"}, {"address", event.m_address.text()}}); break;
    case CSessionEvent::EKind::NoMedia: tell({{"event", "no_media"}, {"seconds", event.m_nNumber}}); break;
    case CSessionEvent::EKind::Media: tell({{"event", "media"}}); break;
    }
}

ordered_json CCallSession::toJson() const
{
    const CRtpSession& media = *m_pMedia;
    const CMediaSettings& settings = media.settings();
    ordered_json json = {{"call", m_name.first},
                         {"leg", m_name.second},
                         {"owner", m_strOwner},
                         {"last", m_events.last()},
                         {"media", media.stateText()},
                         {"direction", directionText(settings.m_eDirection)},
                         {"codec", settings.m_pSendCodec->m_pName},
                         {"local", media.local().text()}};
    if (media.remote().isKnown())
        json["remote"] = media.remote().text();
    json["source"] = sourceText(media.lock().state());
    if (m_bridged)
        json["bridged"] = {{"call", m_bridged->first}, {"leg", m_bridged->second}};
    json["recording"] = m_pRecorder != nullptr && !m_pRecorder->isDone();
    json["srtp"] = settings.m_srtp.has_value();
    json["stream"] = !m_view.expired();
    json["sent"] = {{"packets", media.sender().packets()}, {"octets", media.sender().octets()}};
    json["received"] = receivedJson(media);
    json["rtcp"] = rtcpJson(media);
    return json;
}
