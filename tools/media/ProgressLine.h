// CProgressLine: one line of a terminal that is drawn again and again in its place.
#ifndef PROGRESS_LINE_H
#define PROGRESS_LINE_H

#include "base/Duration.h"

#include <optional>
#include <string>

// "greeting.wav [########------------]   1.2 / 3.4 s  1 of 2", at most nColumns wide; without a total there
// is no bar.
std::string progressText(const std::string& strLabel, CMilliseconds position, std::optional<CMilliseconds> total,
                         const std::string& strRest, int nColumns);

class CProgressLine
{
public:
    // Does nothing when it is not visible: standard output is no terminal, or is wanted for something else.
    explicit CProgressLine(bool bVisible) : m_bVisible(bVisible) {}
    ~CProgressLine() { clear(); }
    CProgressLine(const CProgressLine&) = delete;
    CProgressLine& operator=(const CProgressLine&) = delete;

    void show(const std::string& strLabel, CMilliseconds position, std::optional<CMilliseconds> total,
              const std::string& strRest);

    // Makes room for a line that stays.
    void clear();

private:
    const bool m_bVisible;
    bool m_bShown = false;
};

#endif
