// CTool: what the subcommands of zelmedia have in common: how they are declared, answer and end.
#ifndef TOOL_H
#define TOOL_H

#include "base/ToolError.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <functional>
#include <string>

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

// One line for people on standard error.
void printError(const std::string& strText);

#endif
