// The channel table: which kind of channel a call id and leg get.
#include "ChannelTable.h"

#include "Fd.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

using testing::HasSubstr;

namespace
{
CChannelTable mustParse(const std::string& strText)
{
    std::string strError;
    std::optional<CChannelTable> table = CChannelTable::parse(strText, "table", strError);
    EXPECT_TRUE(table) << strError;
    return table.value_or(CChannelTable());
}

std::string parseError(const std::string& strText)
{
    std::string strError;
    EXPECT_FALSE(CChannelTable::parse(strText, "table", strError)) << strText;
    return strError;
}

// A table of entries that are given with ' for ".
std::string channels(std::string strEntries)
{
    std::replace(strEntries.begin(), strEntries.end(), '\'', '"');
    return "{\"channels\": [" + strEntries + "]}";
}

std::string find(const CChannelTable& table, const std::string& strCallID, uint32_t nLegID)
{
    std::string strError;
    const std::optional<CChannelRoute> route = table.find(strCallID, nLegID, strError);
    if (!route)
        return strError;
    if (const CRtpRoute* pRtp = std::get_if<CRtpRoute>(&*route))
        return pRtp->m_local.text() + " " + pRtp->m_remote.text();
    return std::holds_alternative<CFileRoute>(*route) ? "file" : "null";
}

CRtpRoute findRtp(const CChannelTable& table, const std::string& strCallID)
{
    std::string strError;
    const std::optional<CChannelRoute> route = table.find(strCallID, 1, strError);
    EXPECT_TRUE(route && std::holds_alternative<CRtpRoute>(*route)) << strError;
    return route && std::holds_alternative<CRtpRoute>(*route) ? std::get<CRtpRoute>(*route) : CRtpRoute();
}

const std::string RTP = "'type': 'rtp', 'local': '127.0.0.1:40000', 'remote': '127.0.0.1:50000'";

// Notes what it is asked for.
class CNotingFactory : public CChannelFactory
{
public:
    void open(const std::string& strCallID, uint32_t nLegID, OpenFunction done) override
    {
        m_strOpened = strCallID + "-" + std::to_string(nLegID);
        done(nullptr, "noted");
    }

    std::string m_strOpened;
};
} // namespace

TEST(ChannelTable, MakesEveryCallAFileChannelByDefault)
{
    EXPECT_EQ(find(CChannelTable(), "anything", 7), "file");
    EXPECT_EQ(find(CChannelTable(), "", 0), "file");
}

TEST(ChannelTable, TakesTheFirstEntryThatFits)
{
    const CChannelTable table =
        mustParse(channels("{'call': '1001', 'leg': 1, " + RTP +
                           "}, {'call': 'load-*', 'type': 'null'},"
                           "{'call': 'load-1', 'type': 'file'}, {'call': '*', 'type': 'file'}"));
    EXPECT_EQ(find(table, "1001", 1), "127.0.0.1:40000 127.0.0.1:50000");
    EXPECT_EQ(find(table, "1001", 2), "file");
    EXPECT_EQ(find(table, "load-1", 1), "null");
    EXPECT_EQ(find(table, "load", 1), "file");
}

TEST(ChannelTable, MatchesCallsLikeFileNames)
{
    const CChannelTable table = mustParse(channels("{'call': 'a?[0-9]*', 'type': 'null'}"));
    EXPECT_EQ(find(table, "ax7/y", 1), "null");
    EXPECT_EQ(find(table, "ax7", 1), "null");
    EXPECT_THAT(find(table, "axx", 1), HasSubstr("not in the channel table"));
}

TEST(ChannelTable, SaysWhichCallIsNotInIt)
{
    const CChannelTable table = mustParse(channels("{'call': 'x', 'leg': 4294967295, 'type': 'null'}"));
    EXPECT_EQ(find(table, "x", 4294967295), "null");
    EXPECT_EQ(find(table, "x", 3), "call \"x\", leg 3, is not in the channel table");
    EXPECT_EQ(find(table, "a\n", 3), "call \"a\\x0a\", leg 3, is not in the channel table");
}

TEST(ChannelTable, LetsPortsFollowTheLeg)
{
    const CChannelTable table =
        mustParse(channels("{'call': '*', " + RTP + ", 'localPortStep': 2, 'remotePortStep': 10}"));
    EXPECT_EQ(find(table, "x", 0), "127.0.0.1:40000 127.0.0.1:50000");
    EXPECT_EQ(find(table, "x", 3), "127.0.0.1:40006 127.0.0.1:50030");
    EXPECT_EQ(find(table, "x", 1553), "127.0.0.1:43106 127.0.0.1:65530");
}

TEST(ChannelTable, HasNoPortsPastTheLast)
{
    const CChannelTable table = mustParse(channels("{'call': '*', " + RTP + ", 'localPortStep': 2}"));
    EXPECT_EQ(find(table, "x", 12767), "127.0.0.1:65534 127.0.0.1:50000");
    EXPECT_EQ(find(table, "x", 12768), "leg 12768 has no port: 40000 + 2 * 12768 is more than 65535");
    EXPECT_THAT(find(table, "x", 4294967295), HasSubstr("is more than 65535"));
}

TEST(ChannelTable, ReadsAllOfAnRtpEntry)
{
    const CChannelTable table =
        mustParse(channels("{'call': 'a', 'type': 'rtp', 'local': '[::1]:1', 'remote': '[::2]:2', 'codec': 'pcma',"
                           "'jitterMs': 100}, {'call': 'u', " +
                           RTP + ", 'codec': 'pcmu'}, {'call': 'd', " + RTP + "}"));
    EXPECT_EQ(find(table, "a", 1), "[::1]:1 [::2]:2");
    EXPECT_EQ(findRtp(table, "a").m_pCodec, &CODEC_PCMA);
    EXPECT_EQ(findRtp(table, "a").m_nJitterMs, 100U);
    EXPECT_EQ(findRtp(table, "u").m_pCodec, &CODEC_PCMU);
    EXPECT_EQ(findRtp(table, "d").m_pCodec, &CODEC_PCMU);
    EXPECT_EQ(findRtp(table, "d").m_nJitterMs, 60U);
}

TEST(ChannelTable, SaysWhereItIsNoJson)
{
    EXPECT_THAT(parseError("{\"channels\": [\n{\"call\" 1}]}"), HasSubstr("\"table\": "));
    EXPECT_THAT(parseError("{\"channels\": [\n{\"call\" 1}]}"), HasSubstr("line 2, column 9"));
    EXPECT_THAT(parseError(""), HasSubstr("line 1, column 1"));
    EXPECT_THAT(parseError("{\"channels\": [{\"call\": \"\xff\"}]}"), HasSubstr("line 1"));
    EXPECT_FALSE(parseError(std::string(1000000, '[')).empty());
}

TEST(ChannelTable, RefusesOtherShapes)
{
    EXPECT_EQ(parseError("[]"), "\"table\": must hold an object with \"channels\"");
    EXPECT_EQ(parseError("{}"), "\"table\": \"channels\" must be a list with an entry at least");
    EXPECT_EQ(parseError("{\"channels\": []}"), "\"table\": \"channels\" must be a list with an entry at least");
    EXPECT_EQ(parseError("{\"channels\": {}}"), "\"table\": \"channels\" must be a list with an entry at least");
    EXPECT_EQ(parseError("{\"channels\": [], \"x\": 1}"), "\"table\": unknown key \"x\"");
    EXPECT_EQ(parseError(channels("1")), "\"table\": entry 1: must be an object");
}

TEST(ChannelTable, RefusesKeysThatAreGivenTwice)
{
    EXPECT_EQ(parseError("{\"channels\": [], \"channels\": []}"), "\"table\": key \"channels\" is given twice");
    EXPECT_EQ(parseError(channels("{'call': 'x', 'type': 'null'}, {'call': 'x', 'type': 'null', 'call': 'y'}")),
              "\"table\": entry 2: key \"call\" is given twice");
}

TEST(ChannelTable, SaysWhichEntryIsWrongAndWhy)
{
    const std::vector<std::pair<std::string, std::string>> vCases = {
        {"'type': 'null'", "\"call\" must be given, as a text"},
        {"'call': 1, 'type': 'null'", "\"call\" must be given, as a text"},
        {"'call': 'x'", "\"type\" must be given, as a text"},
        {"'call': 'x', 'type': 'line'", "\"type\" is \"line\", none of file, null and rtp"},
        {"'call': 'x', 'type': 'null', 'leg': -1", "\"leg\" must be a number from 0 to 4294967295"},
        {"'call': 'x', 'type': 'null', 'leg': 1.5", "\"leg\" must be a number from 0 to 4294967295"},
        {"'call': 'x', 'type': 'null', 'leg': '1'", "\"leg\" must be a number from 0 to 4294967295"},
        {"'call': 'x', 'type': 'null', 'leg': 4294967296", "\"leg\" must be a number from 0 to 4294967295"},
        {"'call': 'x', 'type': 'null', 'local': '127.0.0.1:1'", "unknown key \"local\""},
        {"'call': 'x', 'port': 1, " + RTP, "unknown key \"port\""},
        {"'call': 'x', 'type': 'rtp', 'remote': '127.0.0.1:1'", "\"local\" must be given, as a text"},
        {"'call': 'x', 'type': 'rtp', 'local': '127.0.0.1:1'", "\"remote\" must be given, as a text"},
        {"'call': 'x', 'type': 'rtp', 'local': 'localhost:1', 'remote': '127.0.0.1:1'",
         "\"local\" is \"localhost:1\", not an address and port such as 127.0.0.1:40000 or [::1]:40000"},
        {"'call': 'x', 'type': 'rtp', 'local': '127.0.0.1:0', 'remote': '127.0.0.1:1'",
         "\"local\" is \"127.0.0.1:0\", not an address and port such as 127.0.0.1:40000 or [::1]:40000"},
        {"'call': 'x', 'type': 'rtp', 'local': '127.0.0.1:1', 'remote': '[::1]:1'",
         "\"local\" and \"remote\" must both be IPv4 or both be IPv6"},
        {"'call': 'x', 'codec': 'g729', " + RTP, "\"codec\" is \"g729\", neither pcmu nor pcma"},
        {"'call': 'x', 'jitterMs': 1001, " + RTP, "\"jitterMs\" must be a number from 0 to 1000"},
        {"'call': 'x', 'localPortStep': 65536, " + RTP, "\"localPortStep\" must be a number from 0 to 65535"},
        {"'call': 'x', 'remotePortStep': -2, " + RTP, "\"remotePortStep\" must be a number from 0 to 65535"}};
    for (const auto& [strEntry, strReason] : vCases)
    {
        EXPECT_EQ(parseError(channels("{'call': '*', 'type': 'file'}, {" + strEntry + "}")),
                  "\"table\": entry 2: " + strReason);
    }
}

TEST(ChannelTable, IsLoadedFromAFile)
{
    std::ofstream("/tmp/channels.json") << channels("{'call': 'x', 'type': 'null'}");
    std::string strError;
    const std::optional<CChannelTable> table = CChannelTable::load("/tmp/channels.json", strError);
    ASSERT_TRUE(table) << strError;
    EXPECT_EQ(find(*table, "x", 1), "null");
    ::unlink("/tmp/channels.json");
}

TEST(ChannelTable, SaysWhyAFileCannotBeLoaded)
{
    std::string strError;
    EXPECT_FALSE(CChannelTable::load("/tmp/none.json", strError));
    EXPECT_EQ(strError, "\"/tmp/none.json\" cannot be opened: No such file or directory");
    EXPECT_FALSE(CChannelTable::load("/tmp", strError));
    EXPECT_EQ(strError, "\"/tmp\" is no regular file of up to 16 MiB");
    EXPECT_FALSE(CChannelTable::load("/dev/zero", strError));
    EXPECT_EQ(strError, "\"/dev/zero\" is no regular file of up to 16 MiB");
    ASSERT_EQ(::mkfifo("/tmp/channels.fifo", 0600), 0);
    EXPECT_FALSE(CChannelTable::load("/tmp/channels.fifo", strError));
    EXPECT_EQ(strError, "\"/tmp/channels.fifo\" is no regular file of up to 16 MiB");
    ::unlink("/tmp/channels.fifo");
}

TEST(ChannelTable, IsNoHugeFile)
{
    const CFd fdFile(::open("/tmp/huge.json", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(::ftruncate(fdFile.get(), (16 << 20) + 1), 0);
    std::string strError;
    EXPECT_FALSE(CChannelTable::load("/tmp/huge.json", strError));
    EXPECT_EQ(strError, "\"/tmp/huge.json\" is no regular file of up to 16 MiB");
    ::unlink("/tmp/huge.json");
}

TEST(TableChannelFactory, OpensTheKindOfChannelThatTheTableSays)
{
    CRtpPorts ports;
    std::string strError;
    std::shared_ptr<CRtpPort> pFree = ports.open(CNetAddress::parse("127.0.0.1:0").value(), strError);
    ASSERT_TRUE(pFree) << strError;
    const std::string strLocal = pFree->local().text();
    pFree.reset();
    CNotingFactory files;
    CTableChannelFactory factory(
        mustParse(channels("{'call': 'r', 'type': 'rtp', 'remote': '127.0.0.1:9', 'local': '" + strLocal +
                           "'}, {'call': 'n', 'type': 'null'}, {'call': 'f', 'type': 'file'}")),
        ports, files);

    std::unique_ptr<CChannel> pChannel;
    const auto Take = [&](std::unique_ptr<CChannel> pOpened, const std::string& strReason) {
        pChannel = std::move(pOpened);
        strError = strReason;
    };
    factory.open("n", 1, Take);
    ASSERT_TRUE(pChannel);
    EXPECT_STREQ(pChannel->kind(), "null");

    factory.open("r", 1, Take);
    ASSERT_TRUE(pChannel) << strError;
    EXPECT_STREQ(pChannel->kind(), "rtp");
    const std::unique_ptr<CChannel> pRtp = std::move(pChannel);
    factory.open("r", 2, Take);
    EXPECT_FALSE(pChannel);
    EXPECT_THAT(strError, HasSubstr("another channel is open between " + strLocal));

    factory.open("f", 7, Take);
    EXPECT_FALSE(pChannel);
    EXPECT_EQ(strError, "noted");
    EXPECT_EQ(files.m_strOpened, "f-7");

    factory.open("other", 1, Take);
    EXPECT_FALSE(pChannel);
    EXPECT_EQ(strError, "call \"other\", leg 1, is not in the channel table");
}
