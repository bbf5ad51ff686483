// Names of the protocol's codes, for log lines.
#include "MediaProtocol.h"

namespace
{
const char* const aszMIRSP[] = {"MIRSP_NULL",           "MIRSP_STATUS",        "MIRSP_CONNECT",
                                "MIRSP_OPENFILE",       "MIRSP_OPENSTREAM",    "MIRSP_PLAYGETSTATS",
                                "MIRSP_RECORDGETSTATS", "MIRSP_RECORDGETTIME", "MIRSP_RECORDGETSTATUS"};

const char* const aszMIEVT[] = {"MIEVT_NULL", "MIEVT_DONE"};

// Unsigned, so that negative codes are out of range too.
template <size_t SIZE> const char* nameOf(const char* const (&aszNames)[SIZE], int32_t nCode, const char* pszUnknown)
{
    return static_cast<uint32_t>(nCode) < SIZE ? aszNames[nCode] : pszUnknown;
}
} // namespace

const char* MICMDToString(MICMD micmd)
{
    const CCommandInfo* pInfo = commandInfo(micmd);
    if (pInfo)
        return pInfo->m_pszName;
    return micmd == MICMD_NULL ? "MICMD_NULL" : "MICMD unknown";
}

const char* MIRSPToString(MIRSP mirsp)
{
    return nameOf(aszMIRSP, mirsp, "MIRSP unknown");
}

const char* MIEVTToString(MIEVT mievt)
{
    return nameOf(aszMIEVT, mievt, "MIEVT unknown");
}
