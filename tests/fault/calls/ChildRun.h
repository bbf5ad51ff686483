// One run of a scenario in a process of its own.
#ifndef CHILD_RUN_H
#define CHILD_RUN_H

#include "Scenario.h"

#include <memory>
#include <string>
#include <sys/types.h>

class CChildRun
{
public:
    CChildRun();
    ~CChildRun();
    CChildRun(const CChildRun&) = delete;
    CChildRun& operator=(const CChildRun&) = delete;

    void start(const CScenarioEntry& scenario, const faults::CPlan& plan);
    bool isRunning() const { return m_nProcess > 0; }
    int descriptor() const { return m_nOutput; } // ends when the process has ended
    // Reads what the process says; true when it has ended.
    bool advance();
    // Ends one that takes too long.
    bool killIfOverdue();

    // Of the process that has ended.
    const faults::CPlan& plan() const { return m_plan; }
    const faults::CBoard& board() const { return *m_pBoard; }
    bool wentWell() const { return m_strFailure.empty(); }
    const std::string& failure() const { return m_strFailure; }

    // Runs that go on at the same time: each time there is room next is asked for a plan, false for none at the
    // moment; ended is told of each that has ended. Returns when none is going on and next has none.
    static void runMany(const CScenarioEntry& scenario, size_t nJobs, const std::function<bool(faults::CPlan&)>& next,
                        const std::function<void(const CChildRun&)>& ended);

    // Whether processes can have a /tmp of their own, and so run side by side.
    static bool havePrivateTmp();

private:
    faults::CBoard* m_pBoard; // shared with the process
    faults::CPlan m_plan = {};
    pid_t m_nProcess = -1;
    int m_nOutput = -1;
    std::chrono::steady_clock::time_point m_limit;
    bool m_bOverdue = false;
    std::string m_strOutput;
    std::string m_strFailure;
};

#endif
