// The audio files that are in memory, shared by all who play them.
#include "ClipStore.h"

#include "Text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <exception>

namespace
{
constexpr std::size_t SAMPLES_TO_START = 8000;

// About 8 s of audio: some milliseconds of work, whatever the format.
constexpr std::size_t PIECE_SAMPLES = 65536;

bool CanStart(const CClip& clip, std::size_t nPosition)
{
    return clip.IsDecoded() || clip.Ready() >= nPosition + SAMPLES_TO_START;
}
} // namespace

CClipStore::CClipStore(CExecutor& executor) : m_executor(executor) {}

bool CClipStore::CIdentity::operator==(const CIdentity& other) const
{
    return m_nDevice == other.m_nDevice && m_nInode == other.m_nInode && m_nSize == other.m_nSize &&
           m_modified.tv_sec == other.m_modified.tv_sec && m_modified.tv_nsec == other.m_modified.tv_nsec;
}

void CClipStore::Load(const std::string& strPath, std::size_t nPosition, LoadFunction done)
{
    const auto it = m_mapEntryByPath.find(strPath);
    const CClipPtr pKnown = it != m_mapEntryByPath.end() ? it->second.m_pClip.lock() : nullptr;
    const CIdentity known = pKnown ? it->second.m_identity : CIdentity();
    const auto pOpening = std::make_shared<COpening>();
    m_executor.Post(
        [strPath, bKnown = pKnown != nullptr, known, pOpening] { Open(strPath, bKnown ? &known : nullptr, *pOpening); },
        [this, strPath, nPosition, pKnown, pOpening, done = std::move(done)]() mutable {
            OnOpened(strPath, nPosition, pKnown, *pOpening, std::move(done));
        });
}

void CClipStore::Open(const std::string& strPath, const CIdentity* pKnown, COpening& opening)
{
    try
    {
        CFd fd;
        struct stat status = {};
        std::string strReason;
        if (!OpenAudioFile(strPath, O_RDONLY, fd, status, strReason))
        {
            opening.m_strError = fmt::format("\"{}\" cannot be opened: {}", Printable(strPath), strReason);
            return;
        }
        opening.m_identity = {status.st_dev, status.st_ino, status.st_size, status.st_mtim};
        if (pKnown != nullptr && *pKnown == opening.m_identity)
        {
            opening.m_bUnchanged = true;
            return;
        }
        opening.m_pReader = CAudioReader::Open(std::move(fd), strPath, strReason);
        if (!opening.m_pReader)
        {
            opening.m_strError =
                fmt::format("\"{}\" is no audio file that can be read: {}", Printable(strPath), strReason);
            return;
        }
        opening.m_pClip = std::make_shared<CClip>(strPath, opening.m_pReader->MaxSamples());
    }
    catch (const std::exception& exception)
    {
        opening.m_strError = fmt::format("\"{}\" cannot be opened: {}", Printable(strPath), exception.what());
    }
}

void CClipStore::OnOpened(const std::string& strPath, std::size_t nPosition, const CClipPtr& pKnown, COpening& opening,
                          LoadFunction done)
{
    if (!opening.m_strError.empty())
    {
        done(nullptr, opening.m_strError);
        return;
    }
    // Somebody else may have loaded the file in the meantime.
    const CClipPtr pClip = opening.m_bUnchanged ? pKnown : FindClip(strPath, opening.m_identity);
    if (pClip)
    {
        WaitFor(pClip, nPosition, std::move(done));
        return;
    }
    const auto pDecoding = std::make_shared<CDecoding>();
    pDecoding->m_pClip = std::move(opening.m_pClip);
    pDecoding->m_pReader = std::move(opening.m_pReader);
    pDecoding->m_vWaiters.push_back({nPosition, std::move(done)});
    std::erase_if(m_mapEntryByPath, [](const auto& item) { return item.second.m_pClip.expired(); });
    m_mapEntryByPath[strPath] = {pDecoding->m_pClip, opening.m_identity};
    m_mapDecodingByClip.emplace(pDecoding->m_pClip.get(), pDecoding);
    PostPiece(pDecoding);
}

CClipPtr CClipStore::FindClip(const std::string& strPath, const CIdentity& identity) const
{
    const auto it = m_mapEntryByPath.find(strPath);
    return it != m_mapEntryByPath.end() && it->second.m_identity == identity ? it->second.m_pClip.lock() : nullptr;
}

void CClipStore::WaitFor(const CClipPtr& pClip, std::size_t nPosition, LoadFunction done)
{
    const auto it = m_mapDecodingByClip.find(pClip.get());
    if (it == m_mapDecodingByClip.end() || CanStart(*pClip, nPosition))
    {
        done(pClip, {});
        return;
    }
    it->second->m_vWaiters.push_back({nPosition, std::move(done)});
}

void CClipStore::PostPiece(const std::shared_ptr<CDecoding>& pDecoding)
{
    m_executor.Post([pDecoding] { DecodePiece(*pDecoding); }, [this, pDecoding] { OnPiece(pDecoding); });
}

void CClipStore::DecodePiece(CDecoding& decoding)
{
    try
    {
        const std::span<std::uint8_t> room = decoding.m_pClip->Room();
        const auto piece = room.first(std::min(room.size(), PIECE_SAMPLES));
        const std::size_t nSamples = decoding.m_pReader->Read(piece, decoding.m_strError);
        decoding.m_pClip->Publish(nSamples);
        if (nSamples == piece.size() && nSamples < room.size())
        {
            return;
        }
    }
    catch (const std::exception& exception)
    {
        decoding.m_strError = exception.what();
    }
    decoding.m_pReader.reset();
    decoding.m_pClip->End(!decoding.m_strError.empty());
}

void CClipStore::OnPiece(const std::shared_ptr<CDecoding>& pDecoding)
{
    const CClipPtr pClip = pDecoding->m_pClip;
    std::vector<CWaiter> vWaiters;
    vWaiters.swap(pDecoding->m_vWaiters);
    if (!pClip->IsDecoded())
    {
        // Waiters and readers gone: two holders are left, the decoding and this function.
        if (vWaiters.empty() && pClip.use_count() == 2)
        {
            m_mapDecodingByClip.erase(pClip.get());
            return;
        }
        PostPiece(pDecoding);
    }
    else
    {
        m_mapDecodingByClip.erase(pClip.get());
        if (pClip->IsBroken())
        {
            m_mapEntryByPath.erase(pClip->Path());
            spdlog::error("\"{}\" is damaged behind {} samples: {}", Printable(pClip->Path()), pClip->Ready(),
                          pDecoding->m_strError);
        }
        else
        {
            spdlog::info("loaded \"{}\", {} samples", Printable(pClip->Path()), pClip->Ready());
        }
    }
    for (CWaiter& waiter : vWaiters)
    {
        if (!CanStart(*pClip, waiter.m_nPosition))
        {
            pDecoding->m_vWaiters.push_back(std::move(waiter));
        }
        else if (pClip->IsBroken() && pClip->Ready() <= waiter.m_nPosition)
        {
            waiter.m_done(nullptr, fmt::format("\"{}\" is no audio file that can be read: {}", Printable(pClip->Path()),
                                               pDecoding->m_strError));
        }
        else
        {
            waiter.m_done(pClip, {});
        }
    }
}

std::size_t CClipStore::Count() const
{
    return static_cast<std::size_t>(std::count_if(m_mapEntryByPath.begin(), m_mapEntryByPath.end(),
                                                  [](const auto& item) { return !item.second.m_pClip.expired(); }));
}

std::size_t CClipStore::Samples() const
{
    std::size_t nSamples = 0;
    for (const auto& [strPath, entry] : m_mapEntryByPath)
    {
        const CClipPtr pClip = entry.m_pClip.lock();
        nSamples += pClip ? pClip->Ready() : 0;
    }
    return nSamples;
}
