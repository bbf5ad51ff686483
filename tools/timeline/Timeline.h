// CTimeline: what a log tells, by stream and time, as a page to look at or as a trace for Perfetto.
#ifndef TIMELINE_H
#define TIMELINE_H

#include "log/CommandLives.h"

#include <nlohmann/json.hpp>

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

class CTimeline : public CLogListener
{
public:
    // What is drawn. The page knows these by their numbers.
    enum EItem
    {
        ITEM_OPEN, // a stream is open
        ITEM_CONNECTED,
        ITEM_LOST, // no media driver
        ITEM_PLAY,
        ITEM_RECORD,
        ITEM_WAIT, // in the queue
        ITEM_COMPLETION,
        ITEM_CANCEL,
        ITEM_TIMEOUT,
        ITEM_FAILURE,
        ITEMS
    };
    // From a moment to another one, or of one moment.
    struct CItem
    {
        EItem m_item;
        size_t m_nRow;
        int64_t m_llBegin;
        int64_t m_llEnd;
        size_t m_nLife; // NO_LIFE: of no command
    };
    static const size_t NO_LIFE = static_cast<size_t>(-1);

    // A stream, or the connection of a process.
    struct CRow
    {
        int m_nProcess;
        int m_nStream; // NO_STREAM for a process
        std::string m_strName;
    };
    struct CCommandShown
    {
        int m_nCommand;
        uint32_t m_uSequence;
        size_t m_nDetail; // in texts
        size_t m_nEnd;
        int64_t m_allTimes[6]; // requested, queued, sent, answered, event, ended
    };

    void see(const CLogLine& line);
    void onCommand(const CCommandLife& life) override;
    void onStream(const CStreamLife& stream) override;
    void onNote(const CLogNote& note) override;
    // The log has ended: from here on the rest is known.
    void finish();

    // Throws CToolError.
    void write(const std::string& strPath, bool bPerfetto, const std::string& strLogName) const;

    nlohmann::json summary() const;
    std::string summaryText() const;

    const std::vector<CItem>& items() const { return m_vItems; }
    const std::vector<CRow>& rows() const { return m_vRows; }
    const std::vector<CCommandShown>& commands() const { return m_vCommands; }
    const std::vector<std::string>& texts() const { return m_vTexts; }
    const std::map<std::string, uint64_t>& statuses() const { return m_mapStatuses; }
    int64_t begin() const { return m_llBegin; }
    int64_t end() const { return m_llEnd; }
    uint64_t count(EItem item) const;
    uint64_t driverLosses() const { return m_ullDriverLosses; }
    size_t streams() const { return m_mapStreams.size(); }

private:
    // Rows are put in order at the end; until then a stream is known by its key.
    struct CPendingItem
    {
        EItem m_item;
        int m_nProcess;
        uint64_t m_ullStreamKey; // 0: the process
        int64_t m_llBegin;
        int64_t m_llEnd; // NO_TIME: it goes on
        size_t m_nLife;
    };
    struct CConnection
    {
        EItem m_item = ITEMS;
        int64_t m_llSince = NO_TIME;
    };

    size_t textNumber(const std::string& strText);
    void add(EItem item, const CCommandLife& life, int64_t llBegin, int64_t llEnd, size_t nLife);
    void addPlayOrRecord(const CCommandLife& life, size_t nLife);
    void changeConnection(int nProcess, EItem item, int64_t llTime);

    std::vector<CItem> m_vItems;
    std::vector<CRow> m_vRows;
    std::vector<CCommandShown> m_vCommands;
    std::vector<std::string> m_vTexts;
    std::unordered_map<std::string, size_t> m_mapTexts;
    std::vector<CPendingItem> m_vPending;
    std::map<uint64_t, CStreamLife> m_mapStreams;
    std::map<int, CConnection> m_mapConnections;   // by process
    std::map<std::string, uint64_t> m_mapStatuses; // how often plays and records ended so
    uint64_t m_aullCounts[ITEMS] = {};
    uint64_t m_ullDriverLosses = 0;
    int64_t m_llBegin = NO_TIME;
    int64_t m_llEnd = NO_TIME;
};

// The whole page, and the whole trace.
std::string timelinePage(const CTimeline& timeline, const std::string& strLogName);
std::string perfettoTrace(const CTimeline& timeline);

#endif
