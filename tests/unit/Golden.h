// Expected listings as files of the folder golden.
#ifndef GOLDEN_H
#define GOLDEN_H

#include "Files.h"
#include "Places.h"
#include "TraceLines.h"

#include <map>

// What {name} stands for in a file: an address of this run.
typedef std::map<std::string, const void*> CGoldenNames;

// Fails, with the difference, unless these are the file's lines, all of them errors' lines.
inline void expectGolden(const std::string& strFile, const CLogLines& vLines, const CGoldenNames& mapNames = {})
{
    std::string strExpected = contentOf(std::string(GOLDEN) + '/' + strFile);
    EXPECT_NE(strExpected, "") << strFile;
    for (const auto& [strName, pAddress] : mapNames)
    {
        const std::string strHeld = '{' + strName + '}';
        for (size_t nAt = 0; (nAt = strExpected.find(strHeld, nAt)) != std::string::npos;)
            strExpected.replace(nAt, strHeld.size(), text("%08X", addressForLog(pAddress)));
    }
    std::string strLines;
    for (const CLogLine& line : vLines)
    {
        EXPECT_EQ(errorLine(line.strText), line);
        strLines += line.strText + '\n';
    }
    EXPECT_EQ(strExpected, strLines) << strFile;
}

#endif
