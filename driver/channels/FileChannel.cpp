// Channels that are pairs of audio files in a folder.
#include "FileChannel.h"

#include "G711.h"
#include "Text.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{
bool isFileNamePart(const std::string& strCallID)
{
    return !strCallID.empty() && strCallID.find('/') == std::string::npos &&
           strCallID.find("..") == std::string::npos &&
           std::none_of(
               strCallID.begin(), strCallID.end(), [](char c) { return (c >= 0 && c < 0x20) || c == 0x7F; });
}
} // namespace

CFileChannel::CFileChannel(CClipStore& clipStore, std::string strInPath, std::shared_ptr<CAudioSink> pHeard,
                           bool bRealTime, bool bSilenceAfterCaller)
    : m_clipStore(clipStore), m_strInPath(std::move(strInPath)), m_pHeard(std::move(pHeard)), m_bRealTime(bRealTime),
      m_bSilenceAfterCaller(bSilenceAfterCaller), m_pCaller(std::make_shared<CCaller>())
{
}

CFileChannel::~CFileChannel()
{
    m_pHeard->close([](bool) {});
}

const char* CFileChannel::kind() const
{
    return "file";
}

bool CFileChannel::isRealTime() const
{
    return m_bRealTime;
}

size_t CFileChannel::hear(std::span<const uint8_t> samples)
{
    return m_pHeard->put(samples);
}

bool CFileChannel::hasFailed() const
{
    return m_pHeard->hasFailed();
}

void CFileChannel::finishHearing(FinishFunction done)
{
    m_pHeard->update(std::move(done));
}

void CFileChannel::beginListening(BeginFunction done)
{
    m_bSilent = false;
    m_bCallerEnded = false;
    if (m_pCaller->m_bStarted)
    {
        m_bSilent =
            !m_pCaller->m_pSaid || (m_pCaller->m_pSaid->isDecoded() && m_nPosition >= m_pCaller->m_pSaid->ready());
        done(true, {});
        return;
    }
    m_clipStore.loadIfThere(m_strInPath, 0,
                            [pCaller = m_pCaller, done = std::move(done)](CClipPtr pClip, const std::string& strError) {
                                pCaller->m_bStarted = strError.empty();
                                pCaller->m_pSaid = std::move(pClip);
                                done(pCaller->m_bStarted, strError);
                            });
}

size_t CFileChannel::listen(std::span<uint8_t> samples)
{
    size_t nCount = 0;
    if (!m_bSilent && m_pCaller->m_pSaid)
    {
        const CClip& said = *m_pCaller->m_pSaid;
        const bool bDecoded = said.isDecoded();
        nCount = std::min(samples.size(), said.ready() - m_nPosition);
        std::copy_n(said.samples() + m_nPosition, nCount, samples.data());
        m_nPosition += nCount;
        if (nCount == samples.size() || !bDecoded || !m_bSilenceAfterCaller)
        {
            m_bCallerEnded = bDecoded && nCount < samples.size();
            return nCount;
        }
    }
    std::fill(samples.begin() + static_cast<std::ptrdiff_t>(nCount), samples.end(), ULAW_SILENCE);
    return samples.size();
}

bool CFileChannel::hasCallerEnded() const
{
    return m_bCallerEnded;
}

bool CFileChannel::hasCallerFailed() const
{
    return m_bCallerEnded && m_pCaller->m_pSaid->isBroken();
}

bool CFileChannel::wantsService() const
{
    return m_pHeard->wantsService();
}

void CFileChannel::service()
{
    m_pHeard->service();
}

CFileChannelFactory::CFileChannelFactory(CClipStore& clipStore, CExecutor& disk, CFileChannelOptions options)
    : m_clipStore(clipStore), m_disk(disk), m_options(std::move(options))
{
}

void CFileChannelFactory::open(const std::string& strCallID, uint32_t nLegID, OpenFunction done)
{
    if (!isFileNamePart(strCallID))
    {
        done(nullptr, "the call id cannot be part of a file name");
        return;
    }
    const std::string strBase = m_options.m_strFolder + "/" + strCallID;
    const std::string strHeardPath = fmt::format("{}-{}.heard.wav", strBase, nLegID);
    CAudioSink::open(m_disk, strHeardPath,
                     [this, strBase, strHeardPath, done = std::move(done)](std::shared_ptr<CAudioSink> pHeard,
                                                                           const std::string& strError) {
                         if (!pHeard)
                         {
                             done(nullptr,
                                  fmt::format("\"{}\" cannot be written: {}", printable(strHeardPath), strError));
                             return;
                         }
                         done(std::make_unique<CFileChannel>(m_clipStore, strBase + ".in.wav", std::move(pHeard),
                                                             m_options.m_bRealTime, m_options.m_bSilenceAfterCaller),
                              {});
                     });
}
