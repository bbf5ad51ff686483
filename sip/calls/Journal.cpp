// The dialogs of answered calls, in a file that outlives the process.
#include "Journal.h"

#include <nlohmann/json.hpp>
#include <spdlog/spdlog.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

using Json = nlohmann::ordered_json;

namespace
{
constexpr size_t s_nCompact = 4096; // lines, beside those that count

std::string lineOf(const CLegName& leg, const CSipSavedDialog& dialog)
{
    const Json json = {{"call", leg.m_strCall},
                       {"leg", leg.m_uLeg},
                       {"sip_call_id", dialog.m_strCallID},
                       {"local", dialog.m_strLocal},
                       {"remote", dialog.m_strRemote},
                       {"target", dialog.m_strTarget},
                       {"route", dialog.m_strRoute},
                       {"contact", dialog.m_strContact},
                       {"local_cseq", dialog.m_ulLocalCSeq},
                       {"remote_cseq", dialog.m_ulRemoteCSeq},
                       {"caller", dialog.m_bCaller}};
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

// The last line may be torn.
void takeLine(const std::string& strLine, std::map<CLegName, CSipSavedDialog>& mapLeft)
{
    const Json json = Json::parse(strLine, nullptr, false);
    if (!json.is_object() || !json.contains("call") || !json.contains("leg"))
        return;
    const CLegName leg = {json.value("call", ""), json.value("leg", 0U)};
    if (!json.contains("sip_call_id"))
    {
        mapLeft.erase(leg);
        return;
    }
    CSipSavedDialog dialog;
    dialog.m_strCallID = json.value("sip_call_id", "");
    dialog.m_strLocal = json.value("local", "");
    dialog.m_strRemote = json.value("remote", "");
    dialog.m_strTarget = json.value("target", "");
    dialog.m_strRoute = json.value("route", "");
    dialog.m_strContact = json.value("contact", "");
    dialog.m_ulLocalCSeq = json.value("local_cseq", 0UL);
    dialog.m_ulRemoteCSeq = json.value("remote_cseq", 0UL);
    dialog.m_bCaller = json.value("caller", false);
    mapLeft[leg] = dialog;
}
} // namespace

bool CJournal::open(const std::string& strFile, std::map<CLegName, CSipSavedDialog>& mapLeft, std::string& strError)
{
    m_strFile = strFile;
    std::ifstream file(strFile);
    for (std::string strLine; std::getline(file, strLine);)
        try
        {
            takeLine(strLine, mapLeft);
        }
        catch (const nlohmann::json::exception&)
        {
            spdlog::warn("a line of the journal is broken");
        }
    return begin(strError);
}

bool CJournal::begin(std::string& strError)
{
    const mode_t nMask = ::umask(0077);
    m_file = std::ofstream(m_strFile, std::ios::trunc);
    ::umask(nMask);
    m_nWritten = 0;
    if (!m_file)
        strError = "the journal \"" + m_strFile + "\" cannot be written: " + std::strerror(errno);
    return static_cast<bool>(m_file);
}

void CJournal::put(const CLegName& leg, const CSipSavedDialog& dialog)
{
    std::string strLine = lineOf(leg, dialog);
    std::string& strKnown = m_mapLines[leg];
    if (strKnown == strLine)
        return;
    strKnown = std::move(strLine);
    m_file << strKnown << std::flush;
    ++m_nWritten;
    compact();
}

void CJournal::remove(const CLegName& leg)
{
    if (m_mapLines.erase(leg) == 0)
        return;
    m_file << Json({{"call", leg.m_strCall}, {"leg", leg.m_uLeg}}).dump() << "\n" << std::flush;
    ++m_nWritten;
    compact();
}

void CJournal::compact()
{
    std::string strError;
    if (m_nWritten < s_nCompact + 2 * m_mapLines.size())
        return;
    if (!begin(strError))
    {
        spdlog::error("{}", strError);
        return;
    }
    for (const auto& [leg, strLine] : m_mapLines)
        m_file << strLine;
    m_file.flush();
}
