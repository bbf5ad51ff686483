// What can follow on a command line of zelmedia that is being typed.
#ifndef COMPLETION_H
#define COMPLETION_H

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

struct CCandidate
{
    std::string strWord;
    std::string strDescription; // one line, or empty
};

struct CCompletion
{
    bool bFiles = false; // names of files, instead of candidates
    std::vector<CCandidate> vCandidates;
};

// vWords are the words behind the command's name; the last one, perhaps empty, is to be completed.
CCompletion complete(const CLI::App& app, const std::vector<std::string>& vWords);

#endif
