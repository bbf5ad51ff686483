// Rows of exchanges, plays, storms and queues.
#include "Rows.h"

namespace
{
CRow row(const std::string& strText, const std::string& strProbe, const std::string& strLimit, EGoal goal = EGoal::None,
         double dGoal = 0.0, int64_t nOperations = 0)
{
    return {strText, strProbe, strLimit, goal, dGoal, EUnit::Time, nOperations, false};
}
} // namespace

void addExchangeRows(std::vector<CSection>& vSections)
{
    vSections.push_back(
        {"Exchange: 280 bytes there, 48 bytes back; both processes on one core. Limit: a blocking write and read",
         {row("write, poll, read", "exchange/bare-poll", "exchange/bare"),
          row("ping, trace off", "exchange/ping-off", "exchange/bare", EGoal::AtMost, 1.15),
          row("ping, full trace", "exchange/ping-full", "exchange/bare", EGoal::AtMost, 1.5),
          row("ping, a log's first lines", "exchange/ping-fresh", "exchange/bare", EGoal::None, 0.0, 500),
          row("ping, null log", "exchange/ping-null", "exchange/bare"),
          row("recordGetStatus, trace off", "exchange/status-off", "exchange/bare", EGoal::AtMost, 1.15),
          row("recordGetStatus, full trace", "exchange/status-full", "exchange/bare", EGoal::AtMost, 1.5),
          row("recordGetStatus, null log", "exchange/status-null", "exchange/bare")}});
    vSections.push_back(
        {"Play, response, MIEVT_DONE, callback. Limit: an exchange and the blocking read of a 16-byte event",
         {row("the callback plays on, trace off", "play/callback-off", "play/bare", EGoal::AtMost, 1.3),
          row("the callback plays on, full trace", "play/callback-full", "play/bare", EGoal::AtMost, 2.0),
          row("the callback plays on, a log's first lines", "play/callback-fresh", "play/bare", EGoal::None, 0.0, 200),
          row("the callback plays on, null log", "play/callback-null", "play/bare"),
          row("a thread plays and waits, trace off", "play/wait-off", "play/bare-wait", EGoal::AtMost, 1.3),
          row("a thread plays and waits, full trace", "play/wait-full", "play/bare-wait", EGoal::AtMost, 2.0),
          row("a thread plays and waits, null log", "play/wait-null", "play/bare-wait")}});
    const std::string strTwoCores = "The same with the peer on the other core";
    vSections.push_back({strTwoCores,
                         {row("write, poll, read", "exchange/bare-poll@2", "exchange/bare@2"),
                          row("ping, trace off", "exchange/ping-off@2", "exchange/bare@2"),
                          row("ping, full trace", "exchange/ping-full@2", "exchange/bare@2")}});
    vSections.push_back({strTwoCores,
                         {row("the callback plays on, trace off", "play/callback-off@2", "play/bare@2"),
                          row("the callback plays on, full trace", "play/callback-full@2", "play/bare@2")}});
}

void addEventRows(std::vector<CSection>& vSections)
{
    struct CSize
    {
        const char* m_pText;
        const char* m_pGroup;
        int64_t m_nOperations;
    };
    const std::string strTitle =
        "Storm: MIEVT_DONE for all streams in one burst, time per event to the last callback. Limit: a read of each";
    for (const CSize& size : {CSize{"1 stream", "storm-1", 1000}, CSize{"100 streams", "storm-100", 2000},
                              CSize{"10,000 streams", "storm-10000", 10000}})
    {
        const std::string strText = size.m_pText;
        const std::string strGroup = size.m_pGroup;
        vSections.push_back({strTitle,
                             {row(strText + ", trace off", strGroup + "/library-off", strGroup + "/bare",
                                  EGoal::RateAtLeast, 0.7, size.m_nOperations),
                              row(strText + ", full trace", strGroup + "/library-full", strGroup + "/bare",
                                  EGoal::RateAtLeast, 0.0, size.m_nOperations)}});
    }
    vSections.push_back(
        {"Queue: from MIEVT_DONE to the next queued play's request. Limit: read 16 bytes, write 280",
         {row("hand-over, trace off", "handover/library-off", "handover/bare", EGoal::None, 0.0, 1000),
          row("hand-over, full trace", "handover/library-full", "handover/bare", EGoal::None, 0.0, 1000),
          row("hand-over, null log", "handover/library-null", "handover/bare", EGoal::None, 0.0, 1000)}});
}
