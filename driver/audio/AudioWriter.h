// Writing audio files: recordings, and what the caller heard.
#ifndef DRIVER_AUDIO_WRITER_H
#define DRIVER_AUDIO_WRITER_H

#include "Fd.h"
#include "SndFile.h"

#include <fcntl.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>

// One open file of µ-law samples, 8000 per second, mono unless more channels are asked for, which come interleaved.
// Formats of µ-law get them byte for byte. The file is complete, header included, after close, after update, and when
// the writer is destroyed.
class CAudioWriter
{
public:
    // Creates the file or empties an existing one. The format is by the ending of the path: see
    // AudioFormat.h. Any other ending, a path that is not a regular file, and a file that another writer
    // is writing give null; strError then says why, without the path.
    static std::unique_ptr<CAudioWriter> create(const std::string& strPath, std::string& strError);

    // The same in steps: whether the ending has a format; the flags with which the file is opened; and making a
    // writer of the open file.
    static bool hasFormat(const std::string& strPath, std::string& strError);
    static constexpr int OPEN_FLAGS = O_RDWR | O_CREAT;
    static std::unique_ptr<CAudioWriter> create(CFd fd, const std::string& strPath, std::string& strError,
                                                unsigned nChannels = 1);

    ~CAudioWriter();

    // All three return false when the disk or the file failed; the file then holds what got through.
    bool write(std::span<const uint8_t> samples);
    bool update();
    bool close();

private:
    struct CTarget;

    CAudioWriter(std::unique_ptr<CTarget> pTarget, bool bULaw);

    std::unique_ptr<CTarget> m_pTarget;
    CSndFile m_pFile; // writes into the target
    const bool m_bULaw;
};

#endif
