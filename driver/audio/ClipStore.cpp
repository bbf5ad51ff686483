// The audio files that are in memory, shared by all who play them.
#include "ClipStore.h"

#include "AudioFormat.h"
#include "OpenFile.h"
#include "Text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <exception>
#include <new>
#include <stdexcept>
#include <utility>

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

CClipPtr CClipStore::CKnown::find(const CIdentity& identity) const
{
    const CMutexHold hold(m_mutex);
    const auto it = m_mapClipByIdentity.find(identity);
    return it != m_mapClipByIdentity.end() ? it->second.lock() : nullptr;
}

void CClipStore::CKnown::add(const CIdentity& identity, const CClipPtr& pClip)
{
    const CMutexHold hold(m_mutex);
    std::erase_if(m_mapClipByIdentity, [](const auto& item) { return item.second.expired(); });
    m_mapClipByIdentity[identity] = pClip;
}

void CClipStore::CKnown::remove(const CIdentity& identity, const CClipPtr& pClip)
{
    const CMutexHold hold(m_mutex);
    const auto it = m_mapClipByIdentity.find(identity);
    if (it != m_mapClipByIdentity.end() && it->second.lock() == pClip)
        m_mapClipByIdentity.erase(it);
}

std::vector<CClipPtr> CClipStore::CKnown::clips() const
{
    std::vector<CClipPtr> vClips;
    const CMutexHold hold(m_mutex);
    for (const auto& [identity, pWeak] : m_mapClipByIdentity)
        if (CClipPtr pClip = pWeak.lock())
            vClips.push_back(std::move(pClip));
    return vClips;
}

CClipStore::CClipStore(CExecutor& executor, size_t nMaxBytes)
    : m_executor(executor), m_pBudget(std::make_shared<CClipBudget>(nMaxBytes)), m_pKnown(std::make_shared<CKnown>())
{
}

CClipStore::CIdentity CClipStore::identityOf(const std::string& strPath, const struct stat& status)
{
    const auto format = audioFormatOf(strPath);
    return {status.st_dev,         status.st_ino,          status.st_size,
            status.st_mtim.tv_sec, status.st_mtim.tv_nsec, format && format->m_bHeaderless ? format->m_nSndFormat : 0};
}

void CClipStore::load(const std::string& strPath, size_t nPosition, LoadFunction done)
{
    open(strPath, nPosition, false, std::move(done));
}

void CClipStore::loadIfThere(const std::string& strPath, size_t nPosition, LoadFunction done)
{
    open(strPath, nPosition, true, std::move(done));
}

void CClipStore::open(const std::string& strPath, size_t nPosition, bool bNeedNotBeThere, LoadFunction done)
{
    const auto pOpening = std::make_shared<COpening>();
    openFile(
        m_executor, strPath, O_RDONLY,
        [strPath, pOpening, pKnown = m_pKnown](CFd fd, const struct stat& status, std::string& strReason) {
            pOpening->m_identity = identityOf(strPath, status);
            pOpening->m_pClip = pKnown->find(pOpening->m_identity);
            if (pOpening->m_pClip)
                return true;
            pOpening->m_pReader = CAudioReader::open(std::move(fd), strPath, strReason);
            pOpening->m_bNoAudio = !pOpening->m_pReader;
            return !pOpening->m_bNoAudio;
        },
        [this, strPath, nPosition, bNeedNotBeThere, pOpening,
         done = std::move(done)](const COpenResult& result) mutable {
            if (result.m_bMissing && bNeedNotBeThere)
                done(nullptr, {});
            else
                onOpened(strPath, nPosition, *pOpening, result, done);
        });
}

void CClipStore::onOpened(const std::string& strPath, size_t nPosition, COpening& opening, const COpenResult& result,
                          LoadFunction& done)
{
    std::string strError = result.m_strError;
    try
    {
        if (strError.empty())
        {
            begin(strPath, nPosition, opening, *result.m_pLane, done);
            return;
        }
    }
    catch (const std::exception& exception)
    {
        strError = exception.what();
    }
    if (done)
        done(nullptr,
             fmt::format("\"{}\" {}: {}", printable(strPath),
                         opening.m_bNoAudio ? "is no audio file that can be read" : "cannot be opened", strError));
}

std::shared_ptr<CClip> CClipStore::makeClip(const std::string& strPath, size_t nSamples)
{
    if (!m_pBudget->take(nSamples))
        throw std::runtime_error(fmt::format("all files in memory would take more than {} bytes", m_pBudget->max()));
    try
    {
        return std::make_shared<CClip>(strPath, nSamples, m_pBudget);
    }
    catch (...)
    {
        m_pBudget->giveBack(nSamples);
        throw;
    }
}

// done is taken from the caller where nothing can fail any more.
void CClipStore::begin(const std::string& strPath, size_t nPosition, COpening& opening, CExecutor& lane,
                       LoadFunction& done)
{
    // Somebody else may have loaded the file in the meantime.
    const CClipPtr pClip = opening.m_pClip ? opening.m_pClip : m_pKnown->find(opening.m_identity);
    if (pClip)
    {
        waitFor(pClip, nPosition, done);
        return;
    }
    const auto pDecoding = std::make_shared<CDecoding>();
    pDecoding->m_identity = opening.m_identity;
    pDecoding->m_pLane = &lane;
    pDecoding->m_pClip = makeClip(strPath, opening.m_pReader->maxSamples());
    pDecoding->m_pReader = std::move(opening.m_pReader);
    pDecoding->m_vWaiters.reserve(1);
    m_mapDecodingByClip.emplace(pDecoding->m_pClip.get(), pDecoding);
    try
    {
        m_pKnown->add(opening.m_identity, pDecoding->m_pClip);
        postPiece(pDecoding);
    }
    catch (...)
    {
        m_mapDecodingByClip.erase(pDecoding->m_pClip.get());
        throw;
    }
    pDecoding->m_vWaiters.push_back({nPosition, std::exchange(done, nullptr)});
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
    pDecoding->m_pLane->post([pDecoding] { decodePiece(*pDecoding); }, [this, pDecoding] { onPiece(pDecoding); });
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
    CDecoding& decoding = *pDecoding;
    const std::shared_ptr<CClip> pClip = decoding.m_pClip;
    std::vector<CWaiter> vWaiters;
    vWaiters.swap(decoding.m_vWaiters);
    // Waiters and readers gone: two holders are left, the decoding and this function.
    if (!pClip->isDecoded() && vWaiters.empty() && pClip.use_count() == 2)
    {
        m_mapDecodingByClip.erase(pClip.get());
        return;
    }
    try
    {
        if (!pClip->isDecoded())
            postPiece(pDecoding);
    }
    catch (const std::exception& exception)
    {
        decoding.m_strError = exception.what();
        pClip->end(true);
    }
    if (pClip->isDecoded())
        forget(decoding);
    answer(decoding, std::move(vWaiters));
}

void CClipStore::forget(const CDecoding& decoding)
{
    m_mapDecodingByClip.erase(decoding.m_pClip.get());
    if (decoding.m_pClip->isBroken())
        m_pKnown->remove(decoding.m_identity, decoding.m_pClip);
    try
    {
        report(decoding);
    }
    catch (const std::bad_alloc&)
    {
        // Those who wait for the clip need no line.
    }
}

void CClipStore::report(const CDecoding& decoding)
{
    const CClip& clip = *decoding.m_pClip;
    if (clip.isBroken())
        spdlog::error("\"{}\" is damaged behind {} samples: {}", printable(clip.path()), clip.ready(),
                      decoding.m_strError);
    else
        spdlog::info("loaded \"{}\", {} samples", printable(clip.path()), clip.ready());
}

void CClipStore::answer(CDecoding& decoding, std::vector<CWaiter> vWaiters)
{
    const CClipPtr pClip = decoding.m_pClip;
    for (CWaiter& waiter : vWaiters)
        if (!canStart(*pClip, waiter.m_nPosition))
            decoding.m_vWaiters.push_back(std::move(waiter));
        else if (pClip->isBroken() && pClip->ready() <= waiter.m_nPosition)
            waiter.m_done(nullptr, fmt::format("\"{}\" is no audio file that can be read: {}", printable(pClip->path()),
                                               decoding.m_strError));
        else
            waiter.m_done(pClip, {});
}

size_t CClipStore::count() const
{
    return m_pKnown->clips().size();
}

size_t CClipStore::samples() const
{
    size_t nSamples = 0;
    for (const CClipPtr& pClip : m_pKnown->clips())
        nSamples += pClip->ready();
    return nSamples;
}
