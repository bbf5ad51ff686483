// CHostileLibrary: the library on real pipes, and at their other ends a driver that does as planned.
#ifndef HOSTILE_LIBRARY_H
#define HOSTILE_LIBRARY_H

#include "HostileModel.h"
#include "MIntf.h"
#include "RulesCompare.h"
#include "ZelMediaServicesImpl.h"
#include "ZelMediaStreamImpl.h"

#include <memory>

// One thread does everything, and the clock stands still. At each wait of the library for an answer the
// driver's turn comes; a wait that the plan wants in vain takes no time.
class CHostileLibrary
{
public:
    explicit CHostileLibrary(uint64_t ullTick);
    ~CHostileLibrary();
    CHostileLibrary(const CHostileLibrary&) = delete;
    CHostileLibrary& operator=(const CHostileLibrary&) = delete;

    // Runs an operation, of which the model has foretold what it does and returns, and compares all that
    // can be seen. A fault is kept; nothing is run after one.
    template <class OPERATION> int run(CHostileModel& model, OPERATION operation)
    {
        begin(model);
        const int nStatus = operation(*m_pmintf);
        end(model);
        return nStatus;
    }
    void expectEqual(int64_t llExpected, int64_t llFound, const char* pszWhat);
    const std::string& fault() const { return m_strFault; }

    void writeResponses(const std::vector<uint8_t>& vBytes);
    void writeEvents(const std::vector<uint8_t>& vBytes);
    void emptyResponses();
    void readEvents(); // by the event thread's own loop
    void setDriver(bool bThere);
    void dropConnection(); // as if the library had lost it

    CMIntf& mintf() { return *m_pmintf; }
    CMIntfCompletionHandler* handler(int nHandler);
    int openObject(int nObject);
    void destroyObject(int nObject) { m_apObjects[nObject].reset(); }
    static const int HANDLERS = 64;

    int onWait(); // for the wrapped CPipeWait::waitReadable; -1: a real wait

private:
    class CHandler;

    void begin(const CHostileModel& model);
    void end(CHostileModel& model);
    void startExchange(const structMICMD& request);
    void compareReports(const CHostileModel& model);
    void setFault(const std::string& strText);

    CMIntf* m_pmintf;
    std::unique_ptr<CRulesCompare> m_pCompare;
    int m_nDriver = -1;
    std::unique_ptr<CZelMediaServicesImpl> m_pServices;
    std::unique_ptr<CZelMediaStreamImpl> m_apObjects[CHostileModel::OBJECTS];
    std::vector<std::unique_ptr<CHandler>> m_vHandlers;
    std::vector<CPlannedReport> m_vReports;
    std::string m_strFault;

    const std::vector<CPlannedExchange>* m_pvPlan = nullptr;
    size_t m_nNextExchange = 0;
    size_t m_nNextWait = 0; // of the exchange that is on; of none when it has no more
    bool m_bExchange = false;
};

#endif
