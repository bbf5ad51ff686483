// CToolRun: the command zelmedia as a child process, as a user types it.
#ifndef TOOL_RUN_H
#define TOOL_RUN_H

#include "Child.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

class CToolRun : public CChild
{
public:
    // Starts it. Standard input is empty; standard output and error are files of its own, or, for what
    // only a terminal gets to see, one pseudo-terminal of 80 columns.
    enum EOutput
    {
        TO_FILE,
        TO_TERMINAL
    };
    explicit CToolRun(const std::vector<std::string>& vArguments, EOutput output = TO_FILE);
    ~CToolRun(); // kills it if it still runs

    // Waits until its standard output so far contains the text; false when it ended before or 30 s passed.
    bool waitOutput(const std::string& strText);

    // Waits for its end, 60 s at most. The exit code, or minus the signal that killed it.
    int waitExit();

    // What it has written so far.
    std::string output();
    std::string errors() const;
    nlohmann::json json() { return nlohmann::json::parse(output(), nullptr, false); }

private:
    void startToFiles(const std::vector<std::string>& vWords);
    void startOnTerminal(const std::vector<std::string>& vWords);
    void readTerminal();

    std::optional<int> m_nExit;
    int m_nTerminal = -1;
    std::string m_strFolder; // of its outputs
    std::string m_strTerminal;
};

#endif
