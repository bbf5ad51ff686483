// CHostileDriver: makes up what a driver, or whoever else may write into the pipes, puts there.
#ifndef HOSTILE_DRIVER_H
#define HOSTILE_DRIVER_H

#include "Choices.h"
#include "MediaProtocol.h"

#include <deque>

// A play or record that an event may be about.
struct CRunning
{
    int nStreamID;
    uint32_t nSequenceNo;
};

class CHostileDriver
{
public:
    explicit CHostileDriver(CChoices& choices) : m_choices(choices) {}

    // Answers every request at once and well, from now on.
    void setHonest(bool bHonest) { m_bHonest = bHonest; }
    void giveEachStreamItsOwnID() { m_nNextStreamID = 1000; }

    // What is written when the library begins to wait for the nth time (from 0) for the answer to this
    // request. Empty, with nothing in the pipe: the time runs out.
    std::vector<uint8_t> answer(const structMICMD& request, int nTry, bool bPipeEmpty);
    // What is written into the response pipe while nobody waits: answers that were owed, and rubbish.
    std::vector<uint8_t> lateResponses(uint32_t nNextSequenceNo);
    std::vector<uint8_t> events(const std::vector<CRunning>& vRunning, uint32_t nNextSequenceNo);

    uint64_t records() const { return m_ullRecords; }

private:
    enum class Mood : uint32_t
    {
        Good,
        OtherCode,
        Doubled,
        Late,
        Swapped,
        Foreign,
        Owed,
        Short,
        Long,
        Rubbish,
        Silent
    };

    std::vector<uint8_t> begin(const structMICMD& request);
    structMIRSP good(const structMICMD& request);
    int32_t streamID();
    structMIRSP wrong(uint32_t nSequenceNo);
    structMIEVT event(const std::vector<CRunning>& vRunning, uint32_t nNextSequenceNo);
    Mood mood();
    void append(std::vector<uint8_t>& vBytes, const structMIRSP& rsp);
    std::vector<uint8_t> counted(std::vector<uint8_t> vBytes, size_t nRecord);

    CChoices& m_choices;
    bool m_bHonest = false;
    uint32_t m_nToken = 0;
    int32_t m_nNextStreamID = 0; // 0: some of the first few
    std::deque<structMIRSP> m_queOwed;
    structMIEVT m_evtLast = {};
    uint64_t m_ullRecords = 0;
};

#endif
