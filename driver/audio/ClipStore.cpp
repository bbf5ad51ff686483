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
constexpr size_t SAMPLES_TO_START = 8000;

// About 8 s of audio: some milliseconds of work, whatever the format.
constexpr size_t PIECE_SAMPLES = 65536;

bool canStart(const CClip& clip, size_t nPosition)
{
    return clip.isDecoded() || clip.ready() >= nPosition + SAMPLES_TO_START;
}
} // namespace

CClipStore::CClipStore(CExecutor& executor) : m_executor(executor) {}

bool CClipStore::CIdentity::operator==(const CIdentity& other) const
{
    return m_nDevice == other.m_nDevice && m_nInode == other.m_nInode && m_nSize == other.m_nSize &&
           m_modified.tv_sec == other.m_modified.tv_sec && m_modified.tv_nsec == other.m_modified.tv_nsec;
}

void CClipStore::load(const std::string& strPath, size_t nPosition, LoadFunction done)
{
    const auto it = m_mapEntryByPath.find(strPath);
    const CClipPtr pKnown = it != m_mapEntryByPath.end() ? it->second.m_pClip.lock() : nullptr;
    const CIdentity known = pKnown ? it->second.m_identity : CIdentity();
    const auto pOpening = std::make_shared<COpening>();
    m_executor.post(
        [strPath, bKnown = pKnown != nullptr, known, pOpening] { open(strPath, bKnown ? &known : nullptr, *pOpening); },
        [this, strPath, nPosition, pKnown, pOpening, done = std::move(done)]() mutable {
            onOpened(strPath, nPosition, pKnown, *pOpening, std::move(done));
        });
}

void CClipStore::open(const std::string& strPath, const CIdentity* pKnown, COpening& opening)
{
    try
    {
        CFd fd;
        struct stat status = {};
        std::string strReason;
        if (!openAudioFile(strPath, O_RDONLY, fd, status, strReason))
        {
            opening.m_strError = fmt::format("\"{}\" cannot be opened: {}", printable(strPath), strReason);
            return;
        }
        opening.m_identity = {status.st_dev, status.st_ino, status.st_size, status.st_mtim};
        if (pKnown != nullptr && *pKnown == opening.m_identity)
        {
            opening.m_bUnchanged = true;
            return;
        }
        opening.m_pReader = CAudioReader::open(std::move(fd), strPath, strReason);
        if (!opening.m_pReader)
        {
            opening.m_strError =
                fmt::format("\"{}\" is no audio file that can be read: {}", printable(strPath), strReason);
            return;
        }
        opening.m_pClip = std::make_shared<CClip>(strPath, opening.m_pReader->maxSamples());
    }
    catch (const std::exception& exception)
    {
        opening.m_strError = fmt::format("\"{}\" cannot be opened: {}", printable(strPath), exception.what());
    }
}

void CClipStore::onOpened(const std::string& strPath, size_t nPosition, const CClipPtr& pKnown, COpening& opening,
                          LoadFunction done)
{
    if (!opening.m_strError.empty())
    {
        done(nullptr, opening.m_strError);
        return;
    }
    // Somebody else may have loaded the file in the meantime.
    const CClipPtr pClip = opening.m_bUnchanged ? pKnown : findClip(strPath, opening.m_identity);
    if (pClip)
    {
        waitFor(pClip, nPosition, std::move(done));
        return;
    }
    const auto pDecoding = std::make_shared<CDecoding>();
    pDecoding->m_pClip = std::move(opening.m_pClip);
    pDecoding->m_pReader = std::move(opening.m_pReader);
    pDecoding->m_vWaiters.push_back({nPosition, std::move(done)});
    std::erase_if(m_mapEntryByPath, [](const auto& item) { return item.second.m_pClip.expired(); });
    m_mapEntryByPath[strPath] = {pDecoding->m_pClip, opening.m_identity};
    m_mapDecodingByClip.emplace(pDecoding->m_pClip.get(), pDecoding);
    postPiece(pDecoding);
}

CClipPtr CClipStore::findClip(const std::string& strPath, const CIdentity& identity) const
{
    const auto it = m_mapEntryByPath.find(strPath);
    return it != m_mapEntryByPath.end() && it->second.m_identity == identity ? it->second.m_pClip.lock() : nullptr;
}

void CClipStore::waitFor(const CClipPtr& pClip, size_t nPosition, LoadFunction done)
{
    const auto it = m_mapDecodingByClip.find(pClip.get());
    if (it == m_mapDecodingByClip.end() || canStart(*pClip, nPosition))
    {
        done(pClip, {});
        return;
    }
    it->second->m_vWaiters.push_back({nPosition, std::move(done)});
}

void CClipStore::postPiece(const std::shared_ptr<CDecoding>& pDecoding)
{
    m_executor.post([pDecoding] { decodePiece(*pDecoding); }, [this, pDecoding] { onPiece(pDecoding); });
}

void CClipStore::decodePiece(CDecoding& decoding)
{
    try
    {
        const std::span<uint8_t> room = decoding.m_pClip->room();
        const auto piece = room.first(std::min(room.size(), PIECE_SAMPLES));
        const size_t nSamples = decoding.m_pReader->read(piece, decoding.m_strError);
        decoding.m_pClip->publish(nSamples);
        if (nSamples == piece.size() && nSamples < room.size())
            return;
    }
    catch (const std::exception& exception)
    {
        decoding.m_strError = exception.what();
    }
    decoding.m_pReader.reset();
    decoding.m_pClip->end(!decoding.m_strError.empty());
}

void CClipStore::onPiece(const std::shared_ptr<CDecoding>& pDecoding)
{
    const CClipPtr pClip = pDecoding->m_pClip;
    std::vector<CWaiter> vWaiters;
    vWaiters.swap(pDecoding->m_vWaiters);
    if (!pClip->isDecoded())
    {
        // Waiters and readers gone: two holders are left, the decoding and this function.
        if (vWaiters.empty() && pClip.use_count() == 2)
        {
            m_mapDecodingByClip.erase(pClip.get());
            return;
        }
        postPiece(pDecoding);
    }
    else
    {
        m_mapDecodingByClip.erase(pClip.get());
        if (pClip->isBroken())
        {
            m_mapEntryByPath.erase(pClip->path());
            spdlog::error("\"{}\" is damaged behind {} samples: {}", printable(pClip->path()), pClip->ready(),
                          pDecoding->m_strError);
        }
        else
        {
            spdlog::info("loaded \"{}\", {} samples", printable(pClip->path()), pClip->ready());
        }
    }
    for (CWaiter& waiter : vWaiters)
    {
        if (!canStart(*pClip, waiter.m_nPosition))
        {
            pDecoding->m_vWaiters.push_back(std::move(waiter));
        }
        else if (pClip->isBroken() && pClip->ready() <= waiter.m_nPosition)
        {
            waiter.m_done(nullptr, fmt::format("\"{}\" is no audio file that can be read: {}", printable(pClip->path()),
                                               pDecoding->m_strError));
        }
        else
        {
            waiter.m_done(pClip, {});
        }
    }
}

size_t CClipStore::count() const
{
    return static_cast<size_t>(std::count_if(
        m_mapEntryByPath.begin(), m_mapEntryByPath.end(),
        [](const auto& item) { return !item.second.m_pClip.expired(); }));
}

size_t CClipStore::samples() const
{
    size_t nSamples = 0;
    for (const auto& [strPath, entry] : m_mapEntryByPath)
    {
        const CClipPtr pClip = entry.m_pClip.lock();
        nSamples += pClip ? pClip->ready() : 0;
    }
    return nSamples;
}
