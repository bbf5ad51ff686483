// The channel table: which kind of channel a call id and leg get.
#include "ChannelTable.h"
#include "Text.h"

#include <nlohmann/json.hpp>

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <set>
#include <stdexcept>

using nlohmann::json;

namespace
{
constexpr off_t MAX_FILE_SIZE = 16 << 20;
constexpr uint64_t MAX_JITTER_MS = 1000;

// What is wrong with an entry or the whole file; becomes the message of parse.
class CTableError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

std::optional<std::string> readText(const std::string& strPath, std::string& strError)
{
    // A pipe without a writer would hold us up before we know what it is.
    const CFd fdFile(::open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status
    {
    };
    if (!fdFile.isOpen() || ::fstat(fdFile.get(), &status) != 0)
    {
        strError = fmt::format("\"{}\" cannot be opened: {}", printable(strPath), errnoText(errno));
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > MAX_FILE_SIZE)
    {
        strError = fmt::format("\"{}\" is no regular file of up to 16 MiB", printable(strPath));
        return std::nullopt;
    }
    std::string strText(static_cast<size_t>(status.st_size), '\0');
    size_t nDone = 0;
    while (nDone < strText.size())
    {
        const ssize_t nRead = ::read(fdFile.get(), strText.data() + nDone, strText.size() - nDone);
        if (nRead < 0 && errno == EINTR)
            continue;
        if (nRead < 0)
        {
            strError = fmt::format("\"{}\" cannot be read: {}", printable(strPath), errnoText(errno));
            return std::nullopt;
        }
        if (nRead == 0)
            break;
        nDone += static_cast<size_t>(nRead);
    }
    strText.resize(nDone);
    return strText;
}

// The library itself would take the last of keys that are given twice.
json parseJson(std::string_view text)
{
    std::vector<std::set<std::string>> vKeys; // of each open object
    size_t nEntry = 0;
    const auto Check = [&](int, json::parse_event_t event, json& value) {
        if (event == json::parse_event_t::object_start)
        {
            vKeys.emplace_back();
            nEntry += vKeys.size() == 2 ? 1U : 0U;
        }
        else if (event == json::parse_event_t::object_end)
        {
            vKeys.pop_back();
        }
        else if (event == json::parse_event_t::key && !vKeys.back().insert(value.get<std::string>()).second)
        {
            const std::string strWhere = vKeys.size() > 1 ? fmt::format("entry {}: ", nEntry) : "";
            throw CTableError(
                fmt::format("{}key \"{}\" is given twice", strWhere, printable(value.get<std::string>())));
        }
        return true;
    };
    return json::parse(text, Check);
}

void refuseOtherKeys(const json& object, std::initializer_list<std::string_view> known)
{
    for (const auto& [strKey, value] : object.items())
        if (std::find(known.begin(), known.end(), strKey) == known.end())
            throw CTableError(fmt::format("unknown key \"{}\"", printable(strKey)));
}

std::string text(const json& entry, const char* pKey)
{
    const auto it = entry.find(pKey);
    if (it == entry.end() || !it->is_string())
        throw CTableError(fmt::format("\"{}\" must be given, as a text", pKey));
    return it->get<std::string>();
}

uint32_t number(const json& entry, const char* pKey, uint64_t ullMax)
{
    const auto it = entry.find(pKey);
    if (!it->is_number_unsigned() || it->get<uint64_t>() > ullMax)
        throw CTableError(fmt::format("\"{}\" must be a number from 0 to {}", pKey, ullMax));
    return it->get<uint32_t>();
}

CNetAddress address(const json& entry, const char* pKey)
{
    const std::string strText = text(entry, pKey);
    const std::optional<CNetAddress> address = CNetAddress::parse(strText);
    if (!address || address->port() == 0)
    {
        throw CTableError(fmt::format("\"{}\" is \"{}\", not an address and port such as 127.0.0.1:40000 or "
                                      "[::1]:40000",
                                      pKey, printable(strText)));
    }
    return *address;
}

const CCodec* codec(const json& entry)
{
    const std::string strCodec = text(entry, "codec");
    if (strCodec != "pcmu" && strCodec != "pcma")
        throw CTableError(fmt::format("\"codec\" is \"{}\", neither pcmu nor pcma", printable(strCodec)));
    return strCodec == "pcma" ? &CODEC_PCMA : &CODEC_PCMU;
}

CRtpRoute rtpRoute(const json& entry)
{
    CRtpRoute route;
    route.m_local = address(entry, "local");
    route.m_remote = address(entry, "remote");
    if (route.m_local.family() != route.m_remote.family())
        throw CTableError("\"local\" and \"remote\" must both be IPv4 or both be IPv6");
    if (entry.contains("codec"))
        route.m_pCodec = codec(entry);
    if (entry.contains("jitterMs"))
        route.m_nJitterMs = number(entry, "jitterMs", MAX_JITTER_MS);
    return route;
}
} // namespace

// Reads entries of the table.
class CChannelTableReader
{
public:
    static CChannelTable table(const json& file)
    {
        if (!file.is_object())
            throw CTableError("must hold an object with \"channels\"");
        refuseOtherKeys(file, {"channels"});
        const auto it = file.find("channels");
        if (it == file.end() || !it->is_array() || it->empty())
            throw CTableError("\"channels\" must be a list with an entry at least");
        CChannelTable table;
        table.m_vEntries.clear();
        for (const json& entry : *it)
        {
            try
            {
                table.m_vEntries.push_back(readEntry(entry));
            }
            catch (const CTableError& error)
            {
                throw CTableError(fmt::format("entry {}: {}", table.m_vEntries.size() + 1, error.what()));
            }
        }
        return table;
    }

private:
    static CChannelTable::CEntry readEntry(const json& entry)
    {
        if (!entry.is_object())
            throw CTableError("must be an object");
        CChannelTable::CEntry result;
        result.m_strCall = text(entry, "call");
        if (entry.contains("leg"))
            result.m_leg = number(entry, "leg", UINT32_MAX);
        const std::string strType = text(entry, "type");
        if (strType == "rtp")
        {
            refuseOtherKeys(entry, {"call", "leg", "type", "local", "localPortStep", "remote", "remotePortStep",
                                    "codec", "jitterMs"});
            result.m_route = rtpRoute(entry);
            result.m_nLocalPortStep = portStep(entry, "localPortStep");
            result.m_nRemotePortStep = portStep(entry, "remotePortStep");
            return result;
        }
        if (strType != "file" && strType != "null")
            throw CTableError(fmt::format("\"type\" is \"{}\", none of file, null and rtp", printable(strType)));
        refuseOtherKeys(entry, {"call", "leg", "type"});
        result.m_route = strType == "file" ? CChannelRoute(CFileRoute()) : CChannelRoute(CNullRoute());
        return result;
    }

    static uint32_t portStep(const json& entry, const char* pKey)
    {
        return entry.contains(pKey) ? number(entry, pKey, UINT16_MAX) : 0;
    }
};

std::optional<CChannelTable> CChannelTable::load(const std::string& strPath, std::string& strError)
{
    const std::optional<std::string> strText = readText(strPath, strError);
    return strText ? parse(*strText, strPath, strError) : std::nullopt;
}

std::optional<CChannelTable> CChannelTable::parse(std::string_view text, const std::string& strName,
                                                  std::string& strError)
{
    try
    {
        return CChannelTableReader::table(parseJson(text));
    }
    catch (const json::exception& error)
    {
        strError = fmt::format("\"{}\": {}", printable(strName), printable(error.what()));
    }
    catch (const CTableError& error)
    {
        strError = fmt::format("\"{}\": {}", printable(strName), error.what());
    }
    return std::nullopt;
}
