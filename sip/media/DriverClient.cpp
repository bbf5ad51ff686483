// The connection to the media driver: kept up, requests with their answers, events of sessions.
#include "DriverClient.h"

#include <spdlog/spdlog.h>

#include <utility>

using Json = nlohmann::ordered_json;
using std::chrono::milliseconds;

namespace
{
constexpr milliseconds s_retry(200);
constexpr milliseconds s_lost(2000);

const nlohmann::json& lostAnswer()
{
    static const nlohmann::json answer = {
        {"ok", false}, {"error", {{"code", "not-attached"}, {"text", "there is no connection to the media driver"}}}};
    return answer;
}
} // namespace

CDriverClient::CDriverClient(CLoop& loop, CDriverEvents& events, std::string strPath, std::string strOwner)
    : m_loop(loop), m_events(events), m_strPath(std::move(strPath)), m_strOwner(std::move(strOwner)),
      m_retryTimer(loop), m_lostTimer(loop)
{
}

CDriverClient::~CDriverClient()
{
    unwatch();
}

void CDriverClient::start()
{
    connect();
}

void CDriverClient::connect()
{
    std::string strError;
    if (!m_client.connect(m_strPath, strError))
    {
        m_retryTimer.start(s_retry, [this] { connect(); });
        return;
    }
    watch();
}

void CDriverClient::watch()
{
    const int nDescriptor = m_client.descriptor();
    if (nDescriptor == m_nWatched)
    {
        m_loop.change(nDescriptor, static_cast<short>(m_client.wantedEvents()));
        return;
    }
    m_nWatched = nDescriptor;
    m_loop.watch(nDescriptor, static_cast<short>(m_client.wantedEvents()), [this](short) { onReady(); });
}

void CDriverClient::unwatch()
{
    if (m_nWatched >= 0)
        m_loop.unwatch(std::exchange(m_nWatched, -1));
}

void CDriverClient::onReady()
{
    std::string strError;
    const int nDescriptor = m_client.descriptor();
    if (m_client.onReady([this](const nlohmann::json& message) { onMessage(message); }, strError))
        watch();
    else
    {
        // The descriptor is closed and may be another one's by now, but not within this call.
        m_nWatched = nDescriptor;
        unwatch();
        lost(strError);
    }
}

void CDriverClient::attach()
{
    const uint64_t ullID = m_client.request({{"request", "attach"}, {"owner", m_strOwner}});
    m_mapAnswers[ullID] = [this](const nlohmann::json& answer) {
        if (!answer.value("ok", false))
        {
            spdlog::error("the media driver does not take us: {}", answer.dump());
            return;
        }
        std::set<CLegName> setSessions;
        for (const nlohmann::json& session : answer.value("sessions", nlohmann::json::array()))
            setSessions.insert({session.value("call", ""), session.value("leg", 0U)});
        m_bAttached = true;
        m_bLost = false;
        m_lostTimer.stop();
        spdlog::info("connected to the media driver, {} sessions", setSessions.size());
        m_events.onDriverReady(setSessions);
    };
}

void CDriverClient::onMessage(const nlohmann::json& message)
{
    if (message.contains("hello"))
    {
        m_setAbilities.clear();
        for (const nlohmann::json& ability : message.value("abilities", nlohmann::json::array()))
            if (ability.is_string())
                m_setAbilities.insert(ability.get<std::string>());
        attach();
    }
    else if (message.contains("event"))
        m_events.onDriverEvent({message.value("call", ""), message.value("leg", 0U)}, message);
    else
    {
        const auto iAnswer = m_mapAnswers.find(message.value("id", uint64_t{0}));
        if (iAnswer == m_mapAnswers.end())
            return;
        const Answer answer = std::move(iAnswer->second);
        m_mapAnswers.erase(iAnswer);
        answer(message);
    }
}

void CDriverClient::lost(const std::string& strWhy)
{
    spdlog::warn("the connection to the media driver is lost: {}", strWhy);
    m_bAttached = false;
    for (auto& [ullID, answer] : std::exchange(m_mapAnswers, {}))
        m_loop.post([answer = std::move(answer)] { answer(lostAnswer()); });
    m_retryTimer.start(s_retry, [this] { connect(); });
    if (!m_bLost)
        m_lostTimer.start(s_lost, [this] {
            m_bLost = true;
            m_events.onDriverLost();
        });
}

void CDriverClient::request(const char* pName, const CLegName& leg, Json fields, Answer answer)
{
    Json request = {{"request", pName}, {"call", leg.m_strCall}, {"leg", leg.m_uLeg}};
    request.update(fields);
    const uint64_t ullID = m_bAttached ? m_client.request(std::move(request)) : 0;
    if (ullID == 0)
    {
        m_loop.post([answer = std::move(answer)] { answer(lostAnswer()); });
        return;
    }
    m_mapAnswers[ullID] = std::move(answer);
    watch();
}
