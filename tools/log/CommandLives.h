// CCommandLives: folds the lines of a log into the lives of commands and streams.
#ifndef COMMAND_LIVES_H
#define COMMAND_LIVES_H

#include "log/CommandLife.h"

#include <map>
#include <memory>

// Is told of what the log tells, in the order in which it ends there.
class CLogListener
{
public:
    virtual ~CLogListener() = default;
    virtual void onCommand(const CCommandLife& life) = 0;
    virtual void onStream(const CStreamLife&) {}
    virtual void onNote(const CLogNote& note) = 0;
};

// The log may begin and end anywhere, may hold several processes, and lines may be missing. What is kept
// between lines is bounded, whatever the log.
class CCommandLives
{
public:
    explicit CCommandLives(CLogListener& listener);
    ~CCommandLives();
    CCommandLives(const CCommandLives&) = delete;
    CCommandLives& operator=(const CCommandLives&) = delete;

    // Stream and command of a line that names none are filled in, where they are known.
    void add(CLogLine& line);

    // The log has ended, for now: what is still open is told of, and forgotten.
    void finish();

private:
    class CProcessLives;

    void limitMemory();

    CLogListener& m_listener;
    std::map<int, std::unique_ptr<CProcessLives>> m_mapProcesses;
    uint64_t m_ullLines = 0;
    uint64_t m_ullLastStreamKey = 0;
    int64_t m_llLast = NO_TIME;
};

#endif
