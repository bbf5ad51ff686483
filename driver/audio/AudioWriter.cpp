// Writing audio files: recordings, and what the caller heard.
#include "AudioWriter.h"

#include "AudioFormat.h"
#include "G711.h"
#include "OpenFile.h"
#include "Text.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace
{
bool takeForWriting(const CFd& fd, std::string& strError)
{
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)
    {
        strError = "it is being written already";
        return false;
    }
    // Only now, after the checks: the path may have named what must not be touched.
    if (::ftruncate(fd.get(), 0) != 0)
    {
        strError = errnoText(errno);
        return false;
    }
    return true;
}
} // namespace

// Between libsndfile and the descriptor: at the end of a compressed file it does not tell whether the rest
// could be written.
struct CAudioWriter::CTarget
{
    static CTarget& of(void* p) { return *static_cast<CTarget*>(p); }

    static sf_count_t length(void* p)
    {
        struct stat status = {};
        return ::fstat(of(p).m_fd.get(), &status) == 0 ? status.st_size : -1;
    }

    static sf_count_t seek(sf_count_t nOffset, int nWhence, void* p)
    {
        return ::lseek(of(p).m_fd.get(), nOffset, nWhence);
    }

    static sf_count_t read(void* pBytes, sf_count_t nCount, void* p)
    {
        return ::read(of(p).m_fd.get(), pBytes, static_cast<size_t>(nCount));
    }

    static sf_count_t write(const void* pBytes, sf_count_t nCount, void* p)
    {
        sf_count_t nWritten = 0;
        while (nWritten < nCount)
        {
            const ssize_t nPart = ::write(of(p).m_fd.get(), static_cast<const char*>(pBytes) + nWritten,
                                          static_cast<size_t>(nCount - nWritten));
            if (nPart <= 0)
            {
                of(p).m_bFailed = true;
                break;
            }
            nWritten += nPart;
        }
        return nWritten;
    }

    static sf_count_t tell(void* p) { return ::lseek(of(p).m_fd.get(), 0, SEEK_CUR); }

    CFd m_fd;
    bool m_bFailed = false;
};

std::unique_ptr<CAudioWriter> CAudioWriter::create(const std::string& strPath, std::string& strError)
{
    std::unique_ptr<CAudioWriter> pWriter;
    if (hasFormat(strPath, strError))
        openFileHere(
            strPath, OPEN_FLAGS,
            [&](CFd fd, const struct stat&, std::string& strReason) {
                pWriter = create(std::move(fd), strPath, strReason);
                return pWriter != nullptr;
            },
            strError);
    return pWriter;
}

bool CAudioWriter::hasFormat(const std::string& strPath, std::string& strError)
{
    if (!audioFormatOf(strPath))
    {
        strError = std::string("its ending is none of ") + AUDIO_ENDINGS;
        return false;
    }
    return true;
}

std::unique_ptr<CAudioWriter> CAudioWriter::create(CFd fd, const std::string& strPath, std::string& strError,
                                                   unsigned nChannels)
{
    const auto format = audioFormatOf(strPath);
    if (!format || !takeForWriting(fd, strError))
        return nullptr;
    SF_INFO info = {};
    info.format = format->m_nSndFormat;
    info.samplerate = 8000;
    info.channels = static_cast<int>(nChannels);
    auto pTarget = std::make_unique<CTarget>();
    pTarget->m_fd = std::move(fd);
    std::unique_ptr<CAudioWriter> pWriter(
        new CAudioWriter(std::move(pTarget), (format->m_nSndFormat & SF_FORMAT_SUBMASK) == SF_FORMAT_ULAW));
    SF_VIRTUAL_IO io = {CTarget::length, CTarget::seek, CTarget::read, CTarget::write, CTarget::tell};
    pWriter->m_pFile.reset(sf_open_virtual(&io, SFM_WRITE, &info, pWriter->m_pTarget.get()));
    if (!pWriter->m_pFile)
    {
        strError = sf_strerror(nullptr);
        return nullptr;
    }
    if (!pWriter->update())
    {
        strError = "its header cannot be written";
        return nullptr;
    }
    return pWriter;
}

CAudioWriter::CAudioWriter(std::unique_ptr<CTarget> pTarget, bool bULaw) : m_pTarget(std::move(pTarget)), m_bULaw(bULaw)
{
}

CAudioWriter::~CAudioWriter()
{
    close();
}

bool CAudioWriter::write(std::span<const uint8_t> samples)
{
    const sf_count_t nCount = static_cast<sf_count_t>(samples.size());
    if (!m_pFile || m_bULaw)
        return m_pFile && sf_write_raw(m_pFile.get(), samples.data(), nCount) == nCount;
    std::vector<int16_t> vLinear(samples.size());
    std::transform(samples.begin(), samples.end(), vLinear.begin(), decodeULaw);
    return sf_write_short(m_pFile.get(), vLinear.data(), nCount) == nCount;
}

bool CAudioWriter::update()
{
    if (!m_pFile)
        return false;
    sf_command(m_pFile.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
    return sf_error(m_pFile.get()) == SF_ERR_NO_ERROR && !m_pTarget->m_bFailed;
}

bool CAudioWriter::close()
{
    const bool bClosed = !m_pFile || sf_close(m_pFile.release()) == 0;
    m_pTarget->m_fd.close();
    return bClosed && !m_pTarget->m_bFailed;
}
