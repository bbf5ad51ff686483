// The completions of a scenario, against the commands that were accepted.
#ifndef CALLS_LEDGER_H
#define CALLS_LEDGER_H

#include "ZelMediaServices.h"

#include <cstddef>
#include <map>
#include <mutex>
#include <vector>

// Keeps what was accepted, and what was reported of it.
class CLedger : public CZelMediaStreamCompletionHandler
{
public:
    static constexpr unsigned int REASONS = 3;

    void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) override;

    void opened(CZelMediaStream* pStream);
    void closed(CZelMediaStream* pStream);
    // To be called before the command, which may complete before it returns; and again with its status.
    void sent(CZelMediaStream* pStream, MCCOMPLETION_REASON reason);
    void answered(CZelMediaStream* pStream, MCCOMPLETION_REASON reason, int nStatus);

    size_t count() const; // of all completions
    size_t count(CZelMediaStream* pStream, MCSTATUS mcstatus) const;
    void check() const; // complains of each that was none of its business

private:
    struct CEntry
    {
        int anSent[REASONS] = {};
        std::vector<MCSTATUS> avReported[REASONS];
    };
    mutable std::mutex m_mutex;
    std::map<CZelMediaStream*, CEntry> m_mapOpen;
    std::map<CZelMediaStream*, size_t> m_mapClosed; // the last one at that address
    std::vector<CEntry> m_vClosed;
    size_t m_nStrange = 0;
};

#endif
