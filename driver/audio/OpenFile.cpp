// Opening a file beside the loop, in the lane of the file system that it is on.
#include "OpenFile.h"

#include <fcntl.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <utility>

namespace
{
bool isForWriting(int nFlags)
{
    return (nFlags & O_ACCMODE) != O_RDONLY;
}

struct COpening
{
    COpening(const std::string& strPath, int nFlags, ELinks eLinks, OpenedFunction opened, OpenResultFunction done)
        : m_walk(strPath, isForWriting(nFlags) ? eLinks : ELinks::All), m_nFlags(nFlags), m_opened(std::move(opened)),
          m_done(std::move(done))
    {
    }

    // Whether it has to go on in another lane.
    bool run(const CPathWalk::HereFunction& isHere)
    {
        try
        {
            CFd fd;
            struct stat status = {};
            const CPathWalk::EEnd eEnd = m_walk.run(m_nFlags, isHere, fd, status, m_result.m_strError);
            if (eEnd == CPathWalk::EEnd::Elsewhere)
                return true;
            m_result.m_bMissing = m_walk.error() == ENOENT || m_walk.error() == ENOTDIR;
            if (eEnd == CPathWalk::EEnd::Opened && !m_opened(std::move(fd), status, m_result.m_strError) &&
                m_result.m_strError.empty())
                m_result.m_strError = "it is of no use";
        }
        catch (const std::exception& exception)
        {
            m_result.m_strError = exception.what();
        }
        return false;
    }

    CPathWalk m_walk;
    const int m_nFlags;
    const OpenedFunction m_opened;
    const OpenResultFunction m_done;
    COpenResult m_result;
    bool m_bElsewhere = false;
};

void openInItsLane(CExecutor& executor, const CLane& lane, const std::shared_ptr<COpening>& pOpening)
{
    pOpening->m_result.m_pLane = lane.m_pExecutor;
    if (lane.m_bFull)
    {
        pOpening->m_result.m_strError = "its file system does not answer, and too much waits for it";
        pOpening->m_done(pOpening->m_result);
        return;
    }
    lane.m_pExecutor->post([pOpening, isHere = lane.m_isHere] { pOpening->m_bElsewhere = pOpening->run(isHere); },
                           [&executor, pOpening] {
                               if (pOpening->m_bElsewhere)
                                   openInItsLane(executor, executor.laneOf(pOpening->m_walk.path()), pOpening);
                               else
                                   pOpening->m_done(pOpening->m_result);
                           });
}
} // namespace

void openFile(CExecutor& executor, const std::string& strPath, int nFlags, OpenedFunction opened,
              OpenResultFunction done)
{
    const CLane lane = executor.laneOf(strPath);
    openInItsLane(executor, lane,
                  std::make_shared<COpening>(strPath, nFlags, lane.m_eLinks, std::move(opened), std::move(done)));
}

bool openFileHere(const std::string& strPath, int nFlags, const OpenedFunction& opened, std::string& strError)
{
    COpening opening(strPath, nFlags, ELinks::Trusted, opened, nullptr);
    opening.run([](const std::string&) { return true; });
    strError = opening.m_result.m_strError;
    return strError.empty();
}
