// CTool: what the subcommands of zelmedia have in common: how they are declared, answer and end.
#ifndef TOOL_H
#define TOOL_H

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <functional>
#include <stdexcept>
#include <string>

// How zelmedia ends, for scripts.
enum EExitCode : int
{
    EXIT_CODE_OK = 0,
    EXIT_CODE_FAILED = 1,       // what was asked for failed, or a check found something wrong
    EXIT_CODE_USAGE = 2,        // the command line, or a file named in it, cannot be used
    EXIT_CODE_NO_DRIVER = 3,    // there is no media driver, or it does not answer
    EXIT_CODE_INTERRUPTED = 130 // Ctrl-C, after what was running has been cancelled and closed
};

// Ends the command with a message for people, or {"error": ...} with --json.
class CToolError : public std::runtime_error
{
public:
    CToolError(EExitCode exitCode, const std::string& strText) : std::runtime_error(strText), m_exitCode(exitCode) {}
    EExitCode exitCode() const { return m_exitCode; }

private:
    const EExitCode m_exitCode;
};

class CTool
{
public:
    CTool();
    CTool(const CTool&) = delete;
    CTool& operator=(const CTool&) = delete;

    CLI::App& app() { return m_app; }

    // Declares a subcommand with --json and examples in its --help. run gives the exit code; the options
    // that it looks at have to live as long as the tool does.
    CLI::App* addCommand(CLI::App& parent, const char* pszName, const char* pszDescription, const char* pszExamples,
                         std::function<int()> run);

    // Whether the answer is JSON: one document, or one object a line where a command answers bit by bit.
    bool isJson() const { return m_bJson; }

    // Parses the command line and runs what it asks for.
    int run(int nArguments, char** ppArguments);

private:
    int fail(int nExitCode, const char* pszText) const;

    CLI::App m_app;
    bool m_bJson = false;
    std::function<int()> m_run;
};

// One line on standard output, at once.
void printJson(const nlohmann::json& json);
void printLine(const std::string& strLine);

// Declares every subcommand.
void addAllCommands(CTool& tool);

// Each declares some of them.
void addMediaCommands(CTool& tool);   // play, record, phrase play
void addPhrasesCommands(CTool& tool); // phrases build, list, check
void addMachineCommands(CTool& tool); // status, clean, dump
void addTraceCommands(CTool& tool);   // trace, timeline
void addExplainCommand(CTool& tool);  // explain
void addCompletionCommand(CTool& tool);

#endif
