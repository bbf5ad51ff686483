// Channels that are pairs of audio files in a folder.
#include "FileChannel.h"

#include "G711.h"
#include "Text.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{
bool IsFileNamePart(const std::string& strCallID)
{
    return !strCallID.empty() && strCallID.find('/') == std::string::npos &&
           strCallID.find("..") == std::string::npos &&
           std::none_of(strCallID.begin(), strCallID.end(), [](char c) { return (c >= 0 && c < 0x20) || c == 0x7F; });
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
    m_pHeard->Close([](bool) {});
}

const char* CFileChannel::Kind() const
{
    return "file";
}

bool CFileChannel::IsRealTime() const
{
    return m_bRealTime;
}

std::size_t CFileChannel::Hear(std::span<const std::uint8_t> samples)
{
    return m_pHeard->Put(samples);
}

bool CFileChannel::HasFailed() const
{
    return m_pHeard->HasFailed();
}

void CFileChannel::FinishHearing(FinishFunction done)
{
    m_pHeard->Update(std::move(done));
}

void CFileChannel::BeginListening(BeginFunction done)
{
    m_bSilent = false;
    m_bCallerEnded = false;
    if (m_pCaller->m_bStarted || ::access(m_strInPath.c_str(), F_OK) != 0)
    {
        m_pCaller->m_bStarted = true;
        m_bSilent =
            !m_pCaller->m_pSaid || (m_pCaller->m_pSaid->IsDecoded() && m_nPosition >= m_pCaller->m_pSaid->Ready());
        done(true, {});
        return;
    }
    m_clipStore.Load(m_strInPath, 0,
                     [pCaller = m_pCaller, done = std::move(done)](CClipPtr pClip, const std::string& strError) {
                         pCaller->m_bStarted = pClip != nullptr;
                         pCaller->m_pSaid = std::move(pClip);
                         done(pCaller->m_bStarted, strError);
                     });
}

std::size_t CFileChannel::Listen(std::span<std::uint8_t> samples)
{
    std::size_t nCount = 0;
    if (!m_bSilent && m_pCaller->m_pSaid)
    {
        const CClip& said = *m_pCaller->m_pSaid;
        const bool bDecoded = said.IsDecoded();
        nCount = std::min(samples.size(), said.Ready() - m_nPosition);
        std::copy_n(said.Samples() + m_nPosition, nCount, samples.data());
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

bool CFileChannel::HasCallerEnded() const
{
    return m_bCallerEnded;
}

bool CFileChannel::HasCallerFailed() const
{
    return m_bCallerEnded && m_pCaller->m_pSaid->IsBroken();
}

bool CFileChannel::WantsService() const
{
    return m_pHeard->WantsService();
}

void CFileChannel::Service()
{
    m_pHeard->Service();
}

CFileChannelFactory::CFileChannelFactory(CClipStore& clipStore, CExecutor& disk, CFileChannelOptions options)
    : m_clipStore(clipStore), m_disk(disk), m_options(std::move(options))
{
}

void CFileChannelFactory::Open(const std::string& strCallID, std::uint32_t nLegID, OpenFunction done)
{
    if (!IsFileNamePart(strCallID))
    {
        done(nullptr, "the call id cannot be part of a file name");
        return;
    }
    const std::string strBase = m_options.m_strFolder + "/" + strCallID;
    const std::string strHeardPath = fmt::format("{}-{}.heard.wav", strBase, nLegID);
    CAudioSink::Open(m_disk, strHeardPath,
                     [this, strBase, strHeardPath, done = std::move(done)](std::shared_ptr<CAudioSink> pHeard,
                                                                           const std::string& strError) {
                         if (!pHeard)
                         {
                             done(nullptr,
                                  fmt::format("\"{}\" cannot be written: {}", Printable(strHeardPath), strError));
                             return;
                         }
                         done(std::make_unique<CFileChannel>(m_clipStore, strBase + ".in.wav", std::move(pHeard),
                                                             m_options.m_bRealTime, m_options.m_bSilenceAfterCaller),
                              {});
                     });
}
