// The audio files that are in memory, shared by all who play them.
#ifndef DRIVER_CLIP_STORE_H
#define DRIVER_CLIP_STORE_H

#include "AudioReader.h"
#include "Clip.h"
#include "Executor.h"

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Decodes each file once for as long as somebody holds its clip. A file that has changed on disk
// since is decoded anew; holders of the former contents keep those. Files are opened and decoded by the
// executor, in pieces, so that a short file does not wait for a long one. Used on the loop's thread.
class CClipStore
{
public:
    // Gets the clip of a file, or null: strError then says why, with the path.
    using LoadFunction = std::function<void(CClipPtr pClip, const std::string& strError)>;

    explicit CClipStore(CExecutor& executor);

    // Calls done once a play from nPosition, in samples, can begin: one second from there, or all of the
    // file, is decoded. At once or later.
    void load(const std::string& strPath, size_t nPosition, LoadFunction done);

    // The same for a clip that was loaded before.
    void waitFor(const CClipPtr& pClip, size_t nPosition, LoadFunction done);

    // Clips that are in memory, and their samples so far.
    size_t count() const;
    size_t samples() const;

private:
    struct CIdentity
    {
        dev_t m_nDevice = 0;
        ino_t m_nInode = 0;
        off_t m_nSize = 0;
        timespec m_modified = {};

        bool operator==(const CIdentity& other) const;
    };
    struct CEntry
    {
        std::weak_ptr<const CClip> m_pClip;
        CIdentity m_identity;
    };
    // A file on its way from the executor.
    struct COpening
    {
        CIdentity m_identity;
        bool m_bUnchanged = false; // the clip that is in memory is still right
        std::unique_ptr<CAudioReader> m_pReader;
        std::shared_ptr<CClip> m_pClip;
        std::string m_strError;
    };
    struct CWaiter
    {
        size_t m_nPosition;
        LoadFunction m_done;
    };
    struct CDecoding
    {
        std::shared_ptr<CClip> m_pClip;
        std::unique_ptr<CAudioReader> m_pReader;
        std::vector<CWaiter> m_vWaiters;
        std::string m_strError;
    };

    static void open(const std::string& strPath, const CIdentity* pKnown, COpening& opening);
    static void decodePiece(CDecoding& decoding);
    void onOpened(const std::string& strPath, size_t nPosition, const CClipPtr& pKnown, COpening& opening,
                  LoadFunction done);
    CClipPtr findClip(const std::string& strPath, const CIdentity& identity) const;
    void postPiece(const std::shared_ptr<CDecoding>& pDecoding);
    void onPiece(const std::shared_ptr<CDecoding>& pDecoding);

    CExecutor& m_executor;
    std::map<std::string, CEntry> m_mapEntryByPath;
    std::map<const CClip*, std::shared_ptr<CDecoding>> m_mapDecodingByClip;
};

#endif
