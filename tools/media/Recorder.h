// CRecorder: records a channel into a file, at once or behind a prompt, and ends it properly when interrupted.
#ifndef RECORDER_H
#define RECORDER_H

#include "media/MediaSession.h"
#include "media/ProgressLine.h"

#include <string>

struct CRecordPrompt
{
    std::string m_strName;
    unsigned long m_ulFileID = 0;
    unsigned long m_ulOffset = 0; // samples
    unsigned long m_ulLength = 0;
};

class CRecorder
{
public:
    // strFile is the path as the driver gets it.
    CRecorder(CMediaSession& session, const std::string& strFile, std::chrono::seconds max, bool bJson);

    // Both give EXIT_CODE_OK when the recording has ended, or EXIT_CODE_INTERRUPTED; they throw CToolError
    // when it failed.
    int recordAtOnce();
    int recordBehind(const CRecordPrompt& prompt);

private:
    using Clock = std::chrono::steady_clock;

    bool updateRecorded();
    void showPrompt(const CRecordPrompt& prompt, Clock::time_point start);
    bool cancelBehind(bool bPrompt, Clock::time_point& giveUp);
    void tellStarted(const char* pszEvent, const std::string& strName) const;
    int tellRecorded(MCSTATUS mcstatus);
    unsigned long timeout(CMilliseconds longest) const;
    void check(const std::string& strWhat, MCSTATUS mcstatus) const;

    CMediaSession& m_session;
    std::string m_strFile;
    const std::chrono::seconds m_max;
    const bool m_bJson;
    CProgressLine m_progress;
    CMilliseconds m_recorded{0};
};

#endif
