// CTool: what the subcommands of zelmedia have in common: how they are declared, answer and end.
#include "base/Tool.h"

#include <fmt/format.h>

#include <cstdio>

CTool::CTool() : m_app("Play, record and look after media channels.", "zelmedia")
{
    m_app.require_subcommand(1);
    m_app.set_version_flag("--version", ZELMEDIA_VERSION);
    m_app.footer("Exit codes: 0 done, 1 failed, 2 wrong usage, 3 no media driver, 130 interrupted.\n"
                 "'zelmedia COMMAND --help' shows options and examples.");
    m_app.failure_message(CLI::FailureMessage::simple);
}

CLI::App* CTool::addCommand(CLI::App& parent, const char* pszName, const char* pszDescription, const char* pszExamples,
                            std::function<int()> run)
{
    CLI::App* const pCommand = parent.add_subcommand(pszName, pszDescription);
    pCommand->add_flag("--json", m_bJson, "Answer in JSON");
    pCommand->footer(std::string("Examples:\n") + pszExamples);
    pCommand->callback([this, run = std::move(run)] { m_run = run; });
    return pCommand;
}

int CTool::run(int nArguments, char** ppArguments)
{
    try
    {
        m_app.parse(nArguments, ppArguments);
        return m_run();
    }
    catch (const CLI::ParseError& error)
    {
        if (error.get_exit_code() == 0)
            return m_app.exit(error);
        return fail(EXIT_CODE_USAGE, error.what());
    }
    catch (const CToolError& error)
    {
        return fail(error.exitCode(), error.what());
    }
    catch (const std::exception& error)
    {
        return fail(EXIT_CODE_FAILED, error.what());
    }
}

int CTool::fail(int nExitCode, const char* pszText) const
{
    if (m_bJson)
        printJson({{"error", pszText}});
    else
        printError(pszText);
    return nExitCode;
}

void printJson(const nlohmann::json& json)
{
    // Names of files and calls need not be UTF-8.
    printLine(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void printLine(const std::string& strLine)
{
    fmt::print("{}\n", strLine);
    std::fflush(stdout);
}

void printError(const std::string& strText)
{
    fmt::print(stderr, "zelmedia: {}\n", strText);
}
