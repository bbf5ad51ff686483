// The audio files that are in memory, shared by all who play them.
#include "ClipStore.h"

#include "Text.h"

#include <spdlog/spdlog.h>

#include <algorithm>

CClipPtr CClipStore::Load(const std::string& strPath, std::string& strError)
{
    CFd fd;
    struct stat status = {};
    std::string strReason;
    if (!OpenAudioFile(strPath, fd, status, strReason))
    {
        strError = fmt::format("\"{}\" cannot be opened: {}", Printable(strPath), strReason);
        return nullptr;
    }

    const auto it = m_mapEntryByPath.find(strPath);
    if (it != m_mapEntryByPath.end())
    {
        const CEntry& entry = it->second;
        CClipPtr pClip = entry.m_pClip.lock();
        if (pClip && entry.m_nDevice == status.st_dev && entry.m_nInode == status.st_ino &&
            entry.m_nSize == status.st_size && entry.m_modified.tv_sec == status.st_mtim.tv_sec &&
            entry.m_modified.tv_nsec == status.st_mtim.tv_nsec)
        {
            return pClip;
        }
    }

    auto pClip = std::make_shared<CClip>();
    pClip->m_strPath = strPath;
    if (!DecodeAudioFile(fd, strPath, pClip->m_samples, strReason))
    {
        strError = fmt::format("\"{}\" is no audio file that can be read: {}", Printable(strPath), strReason);
        return nullptr;
    }
    std::erase_if(m_mapEntryByPath, [](const auto& item) { return item.second.m_pClip.expired(); });
    m_mapEntryByPath[strPath] = {pClip, status.st_dev, status.st_ino, status.st_size, status.st_mtim};
    spdlog::info("loaded \"{}\", {} samples", Printable(strPath), pClip->m_samples.size());
    return pClip;
}

std::size_t CClipStore::Size() const
{
    return static_cast<std::size_t>(std::count_if(m_mapEntryByPath.begin(), m_mapEntryByPath.end(),
                                                  [](const auto& item) { return !item.second.m_pClip.expired(); }));
}
