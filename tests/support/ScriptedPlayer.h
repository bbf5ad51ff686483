// Ends the plays and records of a scripted driver, in their time or when they are cancelled.
#ifndef SCRIPTED_PLAYER_H
#define SCRIPTED_PLAYER_H

#include "ScriptedDriver.h"

#include <list>

// To be used on the driver's thread, by its rules and its turns.
class CScriptedPlayer
{
public:
    explicit CScriptedPlayer(CScriptedDriver& driver) : m_driver(driver) {}

    void begin(const structMICMD& request, int32_t nStatus, std::chrono::milliseconds length);
    bool isRunning(int32_t nStreamID, bool bRecord) const;
    void cancel(const structMICMD& request); // what the request cancels ends with 3, at once
    void forget(int32_t nStreamID);
    void forgetAll() { m_listRunning.clear(); }
    void endWhatIsDue();

    // Called with what ends, before anybody is told, and after that.
    std::function<void(const structMICMD& request)> m_onEnd;
    std::function<void(const structMICMD& request)> m_onTold;

private:
    typedef std::chrono::steady_clock CClock;
    struct CRunning
    {
        structMICMD request;
        int32_t nStatus;
        CClock::time_point due;
        bool isOf(int32_t nStreamID, bool bRecord) const
        {
            return request.stream.nStreamID == nStreamID && (request.s_micmd == MICMD_RECORDFILE) == bRecord;
        }
    };

    CScriptedDriver& m_driver;
    std::list<CRunning> m_listRunning;
};

#endif
