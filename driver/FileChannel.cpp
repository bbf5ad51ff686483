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

CFileChannel::CFileChannel(CClipStore& clipStore, std::string strInPath, std::unique_ptr<CAudioWriter> pHeard)
    : m_clipStore(clipStore), m_strInPath(std::move(strInPath)), m_pHeard(std::move(pHeard))
{
}

bool CFileChannel::Hear(std::span<const std::uint8_t> samples)
{
    return m_pHeard->Write(samples);
}

bool CFileChannel::FinishHearing()
{
    return m_pHeard->Update();
}

bool CFileChannel::BeginListening(std::string& strError)
{
    if (!m_bStarted && ::access(m_strInPath.c_str(), F_OK) == 0)
    {
        m_pSaid = m_clipStore.Load(m_strInPath, strError);
        if (!m_pSaid)
        {
            return false;
        }
    }
    m_bStarted = true;
    m_bSilent = !m_pSaid || m_nPosition >= m_pSaid->m_samples.size();
    return true;
}

std::size_t CFileChannel::Listen(std::span<std::uint8_t> samples)
{
    if (m_bSilent)
    {
        std::fill(samples.begin(), samples.end(), ULAW_SILENCE);
        return samples.size();
    }
    const CSamples& said = m_pSaid->m_samples;
    const std::size_t nCount = std::min(samples.size(), said.size() - m_nPosition);
    std::copy_n(said.data() + m_nPosition, nCount, samples.data());
    m_nPosition += nCount;
    return nCount;
}

CFileChannelFactory::CFileChannelFactory(CClipStore& clipStore, std::string strFolder)
    : m_clipStore(clipStore), m_strFolder(std::move(strFolder))
{
}

std::unique_ptr<CChannel> CFileChannelFactory::Open(const std::string& strCallID, std::uint32_t nLegID,
                                                    std::string& strError)
{
    if (!IsFileNamePart(strCallID))
    {
        strError = "the call id cannot be part of a file name";
        return nullptr;
    }
    const std::string strBase = m_strFolder + "/" + strCallID;
    const std::string strHeardPath = fmt::format("{}-{}.heard.wav", strBase, nLegID);
    std::string strReason;
    auto pHeard = CAudioWriter::Create(strHeardPath, strReason);
    if (!pHeard)
    {
        strError = fmt::format("\"{}\" cannot be written: {}", Printable(strHeardPath), strReason);
        return nullptr;
    }
    return std::make_unique<CFileChannel>(m_clipStore, strBase + ".in.wav", std::move(pHeard));
}
