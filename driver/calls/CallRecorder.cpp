// The recording of a whole call: what the party said on the left, what it heard on the right.
#include "CallRecorder.h"

#include "G711.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <utility>

namespace
{
constexpr uint64_t UPDATE_SAMPLES = 6400; // 0.8 s
constexpr unsigned SIDES = 2;
} // namespace

std::shared_ptr<CCallRecorder> CCallRecorder::begin(CExecutor& disk, const std::string& strPath, EndFunction onEnd)
{
    std::shared_ptr<CCallRecorder> pRecorder(new CCallRecorder(std::move(onEnd)));
    CAudioSink::open(
        disk, strPath,
        [pThis = pRecorder](const std::shared_ptr<CAudioSink>& pSink, const std::string& strError) {
            pThis->onOpened(pSink, strError);
        },
        SIDES);
    return pRecorder;
}

void CCallRecorder::onOpened(std::shared_ptr<CAudioSink> pSink, const std::string& strError)
{
    m_pSink = std::move(pSink);
    if (!m_pSink)
    {
        spdlog::error("calls: a recording cannot be written: {}", strError);
        finish(false);
    }
    else if (m_bEnded)
    {
        m_bEnded = false;
        end(std::move(m_pKeep));
    }
}

void CCallRecorder::end(std::shared_ptr<void> pKeep)
{
    if (std::exchange(m_bEnded, true))
        return;
    if (!m_pSink)
        m_pKeep = std::move(pKeep);
    else
        m_pSink->close([pThis = shared_from_this(), pKeep = std::move(pKeep)](bool bOk) { pThis->finish(bOk); });
}

void CCallRecorder::finish(bool bOk)
{
    m_bEnded = true;
    const std::shared_ptr<void> pKeep = std::move(m_pKeep);
    if (m_onEnd)
        std::exchange(m_onEnd, nullptr)(bOk, m_ullSamples);
}

void CCallRecorder::onMedia(std::span<const uint8_t> said, std::span<const uint8_t> heard)
{
    if (m_bEnded)
        return;
    std::array<uint8_t, CRtpSession::TICK> abSilence;
    abSilence.fill(ULAW_SILENCE);
    while (m_ullOwed >= abSilence.size() && put(abSilence, abSilence))
        m_ullOwed -= abSilence.size();
    if (m_ullOwed > 0 || !put(said, heard))
        m_ullOwed += CRtpSession::TICK;
}

bool CCallRecorder::put(std::span<const uint8_t> said, std::span<const uint8_t> heard)
{
    std::array<uint8_t, SIDES * CRtpSession::TICK> abBoth;
    if (!m_pSink || m_pSink->room() < abBoth.size())
        return false;
    for (size_t n = 0; n < CRtpSession::TICK; ++n)
    {
        abBoth[SIDES * n] = said[n];
        abBoth[SIDES * n + 1] = heard[n];
    }
    m_pSink->put(abBoth);
    m_ullSamples += CRtpSession::TICK;
    return true;
}

bool CCallRecorder::wantsService() const
{
    return m_pSink && !m_bEnded &&
           (m_pSink->wantsService() || m_pSink->hasFailed() || m_ullSamples - m_ullUpdated >= UPDATE_SAMPLES);
}

void CCallRecorder::service()
{
    if (m_pSink->hasFailed())
    {
        end();
        return;
    }
    if (m_ullSamples - m_ullUpdated >= UPDATE_SAMPLES)
    {
        m_ullUpdated = m_ullSamples;
        m_pSink->update([](bool) {});
    }
    else if (m_pSink->wantsService())
        m_pSink->service();
}
