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
constexpr std::uint64_t MAX_JITTER_MS = 1000;

// What is wrong with an entry or the whole file; becomes the message of Parse.
class CTableError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

std::optional<std::string> ReadText(const std::string& strPath, std::string& strError)
{
    // A pipe without a writer would hold us up before we know what it is.
    const CFd fdFile(::open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status
    {
    };
    if (!fdFile.IsOpen() || ::fstat(fdFile.Get(), &status) != 0)
    {
        strError = fmt::format("\"{}\" cannot be opened: {}", Printable(strPath), ErrnoText(errno));
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > MAX_FILE_SIZE)
    {
        strError = fmt::format("\"{}\" is no regular file of up to 16 MiB", Printable(strPath));
        return std::nullopt;
    }
    std::string strText(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t nDone = 0;
    while (nDone < strText.size())
    {
        const ssize_t nRead = ::read(fdFile.Get(), strText.data() + nDone, strText.size() - nDone);
        if (nRead < 0 && errno == EINTR)
        {
            continue;
        }
        if (nRead < 0)
        {
            strError = fmt::format("\"{}\" cannot be read: {}", Printable(strPath), ErrnoText(errno));
            return std::nullopt;
        }
        if (nRead == 0)
        {
            break;
        }
        nDone += static_cast<std::size_t>(nRead);
    }
    strText.resize(nDone);
    return strText;
}

// The library itself would take the last of keys that are given twice.
json ParseJson(std::string_view text)
{
    std::vector<std::set<std::string>> vKeys; // of each open object
    std::size_t nEntry = 0;
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
                fmt::format("{}key \"{}\" is given twice", strWhere, Printable(value.get<std::string>())));
        }
        return true;
    };
    return json::parse(text, Check);
}

void RefuseOtherKeys(const json& object, std::initializer_list<std::string_view> known)
{
    for (const auto& [strKey, value] : object.items())
    {
        if (std::find(known.begin(), known.end(), strKey) == known.end())
        {
            throw CTableError(fmt::format("unknown key \"{}\"", Printable(strKey)));
        }
    }
}

std::string Text(const json& entry, const char* pKey)
{
    const auto it = entry.find(pKey);
    if (it == entry.end() || !it->is_string())
    {
        throw CTableError(fmt::format("\"{}\" must be given, as a text", pKey));
    }
    return it->get<std::string>();
}

std::uint32_t Number(const json& entry, const char* pKey, std::uint64_t ullMax)
{
    const auto it = entry.find(pKey);
    if (!it->is_number_unsigned() || it->get<std::uint64_t>() > ullMax)
    {
        throw CTableError(fmt::format("\"{}\" must be a number from 0 to {}", pKey, ullMax));
    }
    return it->get<std::uint32_t>();
}

CNetAddress Address(const json& entry, const char* pKey)
{
    const std::string strText = Text(entry, pKey);
    const std::optional<CNetAddress> address = CNetAddress::Parse(strText);
    if (!address || address->Port() == 0)
    {
        throw CTableError(fmt::format("\"{}\" is \"{}\", not an address and port such as 127.0.0.1:40000 or "
                                      "[::1]:40000",
                                      pKey, Printable(strText)));
    }
    return *address;
}

ERtpCodec Codec(const json& entry)
{
    const std::string strCodec = Text(entry, "codec");
    if (strCodec != "pcmu" && strCodec != "pcma")
    {
        throw CTableError(fmt::format("\"codec\" is \"{}\", neither pcmu nor pcma", Printable(strCodec)));
    }
    return strCodec == "pcma" ? ERtpCodec::Pcma : ERtpCodec::Pcmu;
}

CRtpRoute RtpRoute(const json& entry)
{
    CRtpRoute route;
    route.m_local = Address(entry, "local");
    route.m_remote = Address(entry, "remote");
    if (route.m_local.Family() != route.m_remote.Family())
    {
        throw CTableError("\"local\" and \"remote\" must both be IPv4 or both be IPv6");
    }
    if (entry.contains("codec"))
    {
        route.m_eCodec = Codec(entry);
    }
    if (entry.contains("jitterMs"))
    {
        route.m_nJitterMs = static_cast<int>(Number(entry, "jitterMs", MAX_JITTER_MS));
    }
    return route;
}
} // namespace

// Reads entries of the table.
class CChannelTableReader
{
public:
    static CChannelTable Table(const json& file)
    {
        if (!file.is_object())
        {
            throw CTableError("must hold an object with \"channels\"");
        }
        RefuseOtherKeys(file, {"channels"});
        const auto it = file.find("channels");
        if (it == file.end() || !it->is_array() || it->empty())
        {
            throw CTableError("\"channels\" must be a list with an entry at least");
        }
        CChannelTable table;
        table.m_vEntries.clear();
        for (const json& entry : *it)
        {
            try
            {
                table.m_vEntries.push_back(Entry(entry));
            }
            catch (const CTableError& error)
            {
                throw CTableError(fmt::format("entry {}: {}", table.m_vEntries.size() + 1, error.what()));
            }
        }
        return table;
    }

private:
    static CChannelTable::CEntry Entry(const json& entry)
    {
        if (!entry.is_object())
        {
            throw CTableError("must be an object");
        }
        CChannelTable::CEntry result;
        result.m_strCall = Text(entry, "call");
        if (entry.contains("leg"))
        {
            result.m_leg = Number(entry, "leg", UINT32_MAX);
        }
        const std::string strType = Text(entry, "type");
        if (strType == "rtp")
        {
            RefuseOtherKeys(entry, {"call", "leg", "type", "local", "localPortStep", "remote", "remotePortStep",
                                    "codec", "jitterMs"});
            result.m_route = RtpRoute(entry);
            result.m_nLocalPortStep = PortStep(entry, "localPortStep");
            result.m_nRemotePortStep = PortStep(entry, "remotePortStep");
            return result;
        }
        if (strType != "file" && strType != "null")
        {
            throw CTableError(fmt::format("\"type\" is \"{}\", none of file, null and rtp", Printable(strType)));
        }
        RefuseOtherKeys(entry, {"call", "leg", "type"});
        result.m_route = strType == "file" ? CChannelRoute(CFileRoute()) : CChannelRoute(CNullRoute());
        return result;
    }

    static std::uint32_t PortStep(const json& entry, const char* pKey)
    {
        return entry.contains(pKey) ? Number(entry, pKey, UINT16_MAX) : 0;
    }
};

std::optional<CChannelTable> CChannelTable::Load(const std::string& strPath, std::string& strError)
{
    const std::optional<std::string> strText = ReadText(strPath, strError);
    return strText ? Parse(*strText, strPath, strError) : std::nullopt;
}

std::optional<CChannelTable> CChannelTable::Parse(std::string_view text, const std::string& strName,
                                                  std::string& strError)
{
    try
    {
        return CChannelTableReader::Table(ParseJson(text));
    }
    catch (const json::exception& error)
    {
        strError = fmt::format("\"{}\": {}", Printable(strName), Printable(error.what()));
    }
    catch (const CTableError& error)
    {
        strError = fmt::format("\"{}\": {}", Printable(strName), error.what());
    }
    return std::nullopt;
}
