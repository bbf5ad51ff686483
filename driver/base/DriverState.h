// What clients and streams are doing at a moment, for people who look at the driver.
#ifndef DRIVER_DRIVER_STATE_H
#define DRIVER_DRIVER_STATE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

struct CClientState
{
    int m_nConnectID = 0;
    pid_t m_nProcessID = 0;
    size_t m_nFiles = 0;
    size_t m_nStreams = 0;
    size_t m_nWaitingEvents = 0;
};

// Positions and lengths are in samples.
struct CStreamState
{
    int m_nID = 0;
    int m_nConnectID = 0; // of the client that owns it
    std::string m_strCallID;
    uint32_t m_nLegID = 0;
    const char* m_pChannelKind = "";
    bool m_bHungUp = false;

    bool m_bPlaying = false; // the next four have a meaning only then
    std::string m_strPlayPath;
    size_t m_nPlayPosition = 0;
    size_t m_nPlayEnd = 0;
    uint32_t m_nPlaySequence = 0;

    bool m_bRecording = false; // the next three have a meaning only then
    std::string m_strRecordPath;
    uint64_t m_ullMaxSamples = 0;
    uint32_t m_nRecordSequence = 0;

    uint64_t m_ullRecorded = 0; // of the recording that runs or ran last
    int m_nRecordStatus = 0;    // likewise
};

#endif
