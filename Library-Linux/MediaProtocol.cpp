// Names of the protocol's codes, for log lines.
#include "MediaProtocol.h"

namespace
{
const char* const aszMICMD[] = {"MICMD_NULL",           "MICMD_CONNECT",    "MICMD_DISCONNECT",  "MICMD_OPENFILE",
                                "MICMD_CLOSEFILE",      "MICMD_OPENSTREAM", "MICMD_CLOSESTREAM", "MICMD_PLAYCLIP",
                                "MICMD_PLAYFILE",       "MICMD_RECORDFILE", "MICMD_CANCEL",      "MICMD_PLAYGETSTATS",
                                "MICMD_RECORDGETSTATS", "MICMD_PING",       "MICMD_DUMP",        "MICMD_RECORDGETTIME",
                                "MICMD_RECORDGETSTATUS"};

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
    return nameOf(aszMICMD, micmd, "MICMD unknown");
}

const char* MIRSPToString(MIRSP mirsp)
{
    return nameOf(aszMIRSP, mirsp, "MIRSP unknown");
}

const char* MIEVTToString(MIEVT mievt)
{
    return nameOf(aszMIEVT, mievt, "MIEVT unknown");
}
