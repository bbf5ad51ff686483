// Audio on its way into a file: the media tick puts it into memory, the disk's thread writes it.
#ifndef DRIVER_AUDIO_SINK_H
#define DRIVER_AUDIO_SINK_H

#include "AudioWriter.h"
#include "Executor.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

// Used on the loop's thread. The lane of a file system serves all sinks there, in order: a file that was
// closed is complete before any that is opened there later is touched.
class CAudioSink : public std::enable_shared_from_this<CAudioSink>
{
public:
    // Null, with the reason without the path in strError, when the file cannot be written.
    using OpenFunction = std::function<void(std::shared_ptr<CAudioSink> pSink, const std::string& strError)>;
    using DoneFunction = std::function<void(bool bOk)>;

    // What waits in memory at most: 4 s of real time.
    static constexpr size_t CAPACITY = 32768;

    // Creates or empties the file; see CAudioWriter::Create.
    static void open(CExecutor& disk, const std::string& strPath, OpenFunction done, unsigned nChannels = 1);

    explicit CAudioSink(std::unique_ptr<CAudioWriter> pWriter);

    // On the media tick: takes as many samples as there is room for and returns their number. Neither
    // blocks, locks nor allocates.
    size_t put(std::span<const uint8_t> samples);
    size_t room() const;

    // The file could not be written. What got through is in it.
    bool hasFailed() const;

    // After the tick: enough has come together to be written, which service gives to the disk.
    bool wantsService() const;
    void service();

    // Writes all that was put so far, header included. bOk is false when the file has failed.
    void update(DoneFunction done);

    // The same, then ends the file. Nothing may be put afterwards.
    void close(DoneFunction done);

private:
    // Has the disk's thread write what there is, and then finish with the writer.
    void postDrain(bool (CAudioWriter::*finish)(), DoneFunction done);

    // On the disk's thread.
    void drain();
    bool write(std::span<const uint8_t> samples);

    CExecutor* m_pLane = nullptr;
    std::unique_ptr<CAudioWriter> m_pWriter; // the disk's thread's
    std::unique_ptr<uint8_t[]> m_pbRing;     // CAPACITY bytes, memory in use only once it was written
    std::atomic<size_t> m_nPut = 0;          // samples ever put; the place in the ring is modulo CAPACITY
    std::atomic<size_t> m_nWritten = 0;      // samples ever taken out
    std::atomic<bool> m_bFailed = false;
    bool m_bServicePosted = false;
};

#endif
