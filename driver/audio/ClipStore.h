// The audio files that are in memory, shared by all who play them.
#ifndef DRIVER_CLIP_STORE_H
#define DRIVER_CLIP_STORE_H

#include "AudioReader.h"
#include "Clip.h"
#include "ClipBudget.h"
#include "Executor.h"
#include "Mutex.h"

#include <sys/stat.h>

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

struct COpenResult;

// Decodes each file once for as long as somebody holds its clip, whatever the names by which it is asked for.
// A file that has changed on disk since is decoded anew; holders of the former contents keep those. Files are
// opened and decoded by the executor, in the lanes of their file systems and in pieces, so that a short file does
// not wait for a long one. Used on the loop's thread.
class CClipStore
{
public:
    // Gets the clip of a file, or null: strError then says why, with the path.
    using LoadFunction = std::function<void(CClipPtr pClip, const std::string& strError)>;

    static constexpr size_t MAX_BYTES = size_t{1} << 30;

    // All clips together take nMaxBytes at most; a file that would take more is refused.
    explicit CClipStore(CExecutor& executor, size_t nMaxBytes = MAX_BYTES);

    // Calls done once a play from nPosition, in samples, can begin: one second from there, or all of the
    // file, is decoded. At once or later.
    void load(const std::string& strPath, size_t nPosition, LoadFunction done);

    // The same for a file that need not be there: null, without an error, when it is not.
    void loadIfThere(const std::string& strPath, size_t nPosition, LoadFunction done);

    // The same for a clip that was loaded before.
    void waitFor(const CClipPtr& pClip, size_t nPosition, LoadFunction done);

    // Clips that are in memory, their samples so far, and the memory that they take. While a clip is being
    // decoded it counts as long as the file says that it will be.
    size_t count() const;
    size_t samples() const;
    size_t bytes() const { return m_pBudget->taken(); }

private:
    // What a clip was made of: files with one identity have the same samples.
    struct CIdentity
    {
        dev_t m_nDevice = 0;
        ino_t m_nInode = 0;
        off_t m_nSize = 0;
        time_t m_nModified = 0;
        long m_nModifiedNs = 0;
        int m_nHeaderlessFormat = 0; // by the ending, which tells what the bytes of such a file mean

        bool operator<(const CIdentity& other) const
        {
            return std::tie(m_nDevice, m_nInode, m_nSize, m_nModified, m_nModifiedNs, m_nHeaderlessFormat) <
                   std::tie(other.m_nDevice, other.m_nInode, other.m_nSize, other.m_nModified, other.m_nModifiedNs,
                            other.m_nHeaderlessFormat);
        }
    };
    // The clips that are in memory. Shared with the work of the executor, which may outlive the store.
    class CKnown
    {
    public:
        CClipPtr find(const CIdentity& identity) const;
        void add(const CIdentity& identity, const CClipPtr& pClip);
        void remove(const CIdentity& identity, const CClipPtr& pClip);
        std::vector<CClipPtr> clips() const;

    private:
        mutable CMutex m_mutex;
        std::map<CIdentity, std::weak_ptr<const CClip>> m_mapClipByIdentity GUARDED_BY(m_mutex);
    };
    // A file on its way from the executor.
    struct COpening
    {
        CIdentity m_identity;
        CClipPtr m_pClip; // where it is in memory already
        std::unique_ptr<CAudioReader> m_pReader;
        bool m_bNoAudio = false;
    };
    struct CWaiter
    {
        size_t m_nPosition;
        LoadFunction m_done;
    };
    struct CDecoding
    {
        CIdentity m_identity;
        CExecutor* m_pLane;
        std::shared_ptr<CClip> m_pClip;
        std::unique_ptr<CAudioReader> m_pReader;
        std::vector<CWaiter> m_vWaiters;
        std::string m_strError;
    };

    static CIdentity identityOf(const std::string& strPath, const struct stat& status);
    static void decodePiece(CDecoding& decoding);
    void open(const std::string& strPath, size_t nPosition, bool bNeedNotBeThere, LoadFunction done);
    void onOpened(const std::string& strPath, size_t nPosition, COpening& opening, const COpenResult& result,
                  LoadFunction& done);
    void begin(const std::string& strPath, size_t nPosition, COpening& opening, CExecutor& lane, LoadFunction& done);
    std::shared_ptr<CClip> makeClip(const std::string& strPath, size_t nSamples);
    void postPiece(const std::shared_ptr<CDecoding>& pDecoding);
    void onPiece(const std::shared_ptr<CDecoding>& pDecoding);
    void forget(const CDecoding& decoding);
    static void report(const CDecoding& decoding);
    static void answer(CDecoding& decoding, std::vector<CWaiter> vWaiters);

    CExecutor& m_executor;
    const std::shared_ptr<CClipBudget> m_pBudget;
    const std::shared_ptr<CKnown> m_pKnown;
    std::map<const CClip*, std::shared_ptr<CDecoding>> m_mapDecodingByClip;
};

#endif
