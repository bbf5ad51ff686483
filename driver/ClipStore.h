// The audio files that are in memory, shared by all who play them.
#ifndef DRIVER_CLIP_STORE_H
#define DRIVER_CLIP_STORE_H

#include "AudioReader.h"

#include <ctime>
#include <map>
#include <memory>
#include <string>

// A decoded audio file. It never changes; whoever holds it may go on playing after the file was
// closed, changed or deleted.
struct CClip
{
    std::string m_strPath;
    CSamples m_samples;
};

using CClipPtr = std::shared_ptr<const CClip>;

// Decodes each file once for as long as somebody holds its clip. A file that has changed on disk
// since is decoded anew; holders of the former contents keep those.
class CClipStore
{
public:
    // The clip of a file, or null: strError then says why, with the path.
    CClipPtr Load(const std::string& strPath, std::string& strError);

    // Number of clips that are in memory.
    std::size_t Size() const;

private:
    struct CEntry
    {
        std::weak_ptr<const CClip> m_pClip;
        dev_t m_nDevice = 0;
        ino_t m_nInode = 0;
        off_t m_nSize = 0;
        timespec m_modified = {};
    };

    std::map<std::string, CEntry> m_mapEntryByPath;
};

#endif
