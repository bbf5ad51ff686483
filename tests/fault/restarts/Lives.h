// The lives of the driver: each is a driver program and the way in which it is killed.
#ifndef LIVES_H
#define LIVES_H

#include "MediaProtocol.h"
#include "ReferenceDriver.h"

#include <functional>
#include <random>
#include <string>
#include <vector>

class CApplication;

struct CLife
{
    enum class EEnd
    {
        Rule,           // the reference driver, when it has read such a request
        Step,           // the scripted driver, at an exact step
        WhileReopening, // likewise, while the library connects: nobody gets to use it
        Kill,           // SIGKILL at some moment
        StopKill,       // SIGSTOP, a request unread, SIGKILL
        StopContinue    // SIGSTOP, a request given up, SIGCONT, later SIGKILL
    };

    std::string strName;
    EEnd eEnd;
    bool bReference;
    std::string strCommand; // of a rule
    MICMD micmd;            // of a step
    std::string strStep;

    bool isUsed() const { return eEnd != EEnd::WhileReopening; }
    // Whether it may give out the numbers of that one's streams again.
    bool sharesNumbersWith(const CLife& life) const { return bReference && life.bReference; }
};

// Every way to die, those of all commands included.
std::vector<CLife> allLives();

class CLivingDriver
{
public:
    // nNumber: of this life, from 1; numbers the streams of a scripted driver apart from all others.
    bool start(const CLife& life, int nNumber, std::mt19937& random);
    // Brings the end about, in an application that is at work, and waits for it. False when it does not come.
    bool die(const CLife& life, CApplication& application, std::mt19937& random);
    // Waits for the end of one that kills itself, and does this meanwhile.
    bool waitDead(const std::function<void()>& meanwhile = nullptr);

private:
    bool stopWithARequestUnread();

    CDriverProcess m_process;
};

#endif
