// The subcommand completion of zelmedia, and the hidden one that the shells' scripts ask.
#include "shell/CompletionCommand.h"

#include "CompletionScripts.h"
#include "base/Tool.h"
#include "shell/Completion.h"

#include <cstdio>
#include <memory>

namespace
{
const char* const COMPLETION_EXAMPLES = "  source <(zelmedia completion bash)\n"
                                        "  source <(zelmedia completion zsh)\n"
                                        "  zelmedia completion fish | source\n"
                                        "\n"
                                        "The packages install these scripts where the shells look for them.";

int runCompletion(const CTool& tool, const std::string& strShell)
{
    for (const CCompletionScript& script : COMPLETION_SCRIPTS)
    {
        if (strShell != script.pszShell)
            continue;
        if (tool.isJson())
            printJson({{"shell", script.pszShell}, {"script", script.pszText}});
        else
            std::fputs(script.pszText, stdout);
    }
    return EXIT_CODE_OK;
}

// One candidate a line, with a tab before its description; or ":files".
int runCompleteWords(CTool& tool, const std::vector<std::string>& vWords)
{
    const CCompletion completion = complete(tool.app(), vWords);
    if (completion.bFiles)
        printLine(":files");
    for (const CCandidate& candidate : completion.vCandidates)
        printLine(candidate.strWord + '\t' + candidate.strDescription);
    return EXIT_CODE_OK;
}
} // namespace

void addCompletionCommand(CTool& tool)
{
    const auto pShell = std::make_shared<std::string>();
    CLI::App* pCommand =
        tool.addCommand(tool.app(), "completion", "Print the script that makes a shell complete zelmedia",
                        COMPLETION_EXAMPLES, [&tool, pShell] { return runCompletion(tool, *pShell); });
    pCommand->add_option("shell", *pShell, "The shell")->required()->check(CLI::IsMember({"bash", "zsh", "fish"}));

    const auto pWords = std::make_shared<std::vector<std::string>>();
    pCommand = tool.addCommand(tool.app(), "complete-words", "Tell what can follow", "  zelmedia complete-words -- pl",
                               [&tool, pWords] { return runCompleteWords(tool, *pWords); });
    pCommand->group("");
    pCommand->add_option("words", *pWords);
}
