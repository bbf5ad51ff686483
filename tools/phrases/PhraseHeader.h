// The C++ header with the constants of a phrase file, for applications.
#ifndef PHRASE_HEADER_H
#define PHRASE_HEADER_H

#include "phrases/PhraseIndex.h"

#include <string>

// Its namespace is the capitalised name of the header: Prompts for prompts.h. Throws CToolError when two
// phrases would have the same constant.
std::string phraseHeaderText(const CPhraseIndex& index, const std::string& strHeaderPath);

#endif
