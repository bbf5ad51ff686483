// CToolError: why a subcommand of zelmedia ends early, and the codes that it ends with.
#ifndef TOOL_ERROR_H
#define TOOL_ERROR_H

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

#endif
