// The session of one leg of a call: its media, its owner, and its events.
#ifndef DRIVER_CALL_SESSION_H
#define DRIVER_CALL_SESSION_H

#include "CallRecorder.h"
#include "JsonEventLog.h"
#include "RtpSession.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

// Call id and leg.
using CLegName = std::pair<std::string, uint32_t>;

class CCallSession : public std::enable_shared_from_this<CCallSession>, private CRtpSession::CListener
{
public:
    // Gets each event as the line that goes to the owner.
    using EventFunction = std::function<void(const CCallSession& session, const std::string& strLine)>;

    CCallSession(CLegName name, std::string strOwner, EventFunction onEvent)
        : m_name(std::move(name)), m_strOwner(std::move(strOwner)), m_onEvent(std::move(onEvent))
    {
    }
    ~CCallSession() override = default;
    CCallSession(const CCallSession&) = delete;
    CCallSession& operator=(const CCallSession&) = delete;

    // False, with the reason in strError. Once, before anything else.
    bool open(CRtpPorts& ports, CPoller* pPoller, std::shared_ptr<CRtpPort> pPort, CFd fdRtcp,
              const CMediaSettings& settings, std::string& strError);

    const CLegName& name() const { return m_name; }
    const std::string& owner() const { return m_strOwner; }
    const CJsonEventLog& events() const { return m_events; }
    CRtpSession& media() { return *m_pMedia; }
    const CRtpSession& media() const { return *m_pMedia; }

    // Whom it hears and who hears it.
    void setBridged(std::optional<CLegName> name) { m_bridged = std::move(name); }
    const std::optional<CLegName>& bridged() const { return m_bridged; }

    // A view for one stream at a time; null while there is one.
    std::shared_ptr<CRtpSession> takeView();

    // Numbers the event and gives it to the owner.
    void tell(nlohmann::ordered_json event);

    // Records the call from now on; an empty name ends the recording. False when there is no memory.
    bool record(CExecutor& disk, const std::string& strFile);

    // Ends the media. What is viewed stays valid, and silent.
    void end(const std::string& strReason);

    nlohmann::ordered_json toJson() const;

private:
    void endRecord();
    void onRecorded(const std::string& strFile, bool bOk, uint64_t ullSamples);
    void onSessionEvent(const CSessionEvent& event) override;

    const CLegName m_name;
    const std::string m_strOwner;
    const EventFunction m_onEvent;
    CJsonEventLog m_events;
    std::shared_ptr<CRtpSession> m_pMedia;
    std::weak_ptr<CRtpSession> m_view;
    std::optional<CLegName> m_bridged;
    std::shared_ptr<CCallRecorder> m_pRecorder;
    std::optional<std::string> m_strEndReason; // to be told when the recording is whole
};

#endif
