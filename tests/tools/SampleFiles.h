// Files for tests of the command zelmedia, and audio for them: samples that no two places have in common.
#ifndef SAMPLE_FILES_H
#define SAMPLE_FILES_H

#include <fstream>
#include <sstream>
#include <string>

using CSamples = std::string; // µ-law, 8000 per second

inline CSamples noise(size_t nCount, unsigned nSeed)
{
    CSamples samples;
    for (size_t n = 0; n < nCount; ++n)
    {
        nSeed = nSeed * 1103515245u + 12345u;
        samples += static_cast<char>(nSeed >> 16);
    }
    return samples;
}

inline void writeFile(const std::string& strPath, const std::string& strBytes)
{
    std::ofstream(strPath, std::ios::binary) << strBytes;
}

inline std::string readFile(const std::string& strPath)
{
    std::ostringstream bytes;
    bytes << std::ifstream(strPath, std::ios::binary).rdbuf();
    return bytes.str();
}

// What the data chunk of a WAV file holds.
inline CSamples samplesOf(const std::string& strPath)
{
    const std::string strBytes = readFile(strPath);
    const size_t nData = strBytes.find("data");
    if (nData == std::string::npos || nData + 8 > strBytes.size())
        return "";
    size_t nSize = 0;
    for (size_t nByte = 4; nByte-- > 0;)
        nSize = nSize << 8 | static_cast<unsigned char>(strBytes[nData + 4 + nByte]);
    return strBytes.substr(nData + 8, nSize);
}

#endif
