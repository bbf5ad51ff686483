// CHostileModel: the model of the rules between pipes with whatever bytes the driver writes.
#ifndef HOSTILE_MODEL_H
#define HOSTILE_MODEL_H

#include "BytePipe.h"
#include "HostileDriver.h"
#include "RulesModel.h"

// The driver's part of one exchange: the request that it must find in the request pipe, and what it
// writes at each wait of the library.
struct CPlannedExchange
{
    MICMD micmd;
    int32_t nConnectID;
    uint32_t nSequenceNo;
    std::vector<std::vector<uint8_t>> vWaits;
    bool bTimeOut; // the last wait is in vain
};

struct CPlannedReport
{
    int nHandler; // who is told
    int nStreamID;
    int nStatus;
    int nReason;
    bool operator==(const CPlannedReport&) const = default;
};

class CHostileModel : public CRulesModel
{
public:
    static const int OBJECTS = 6;

    CHostileModel(CHostileDriver& driver, uint64_t ullTick) : CRulesModel(OBJECTS, ullTick), m_driver(driver) {}

    int openObject(int nObject);
    void destroyObject(int nObject);
    bool exists(int nObject) const { return m_aObjects[nObject].bExists; }
    // The event thread reads all that is in the event pipe.
    void readEvents();

    std::vector<CRunning> running() const;
    bool isHandlerUsed(int nHandler) const;

    CBytePipe m_pipeResponse;
    CBytePipe m_pipeEvent;
    bool m_bDriver = true; // the driver has the request pipe open

    // What the library is to do, in order; emptied by whoever compares it.
    std::vector<CPlannedExchange> m_vExchanges;
    std::vector<CPlannedReport> m_vReports;

private:
    struct CApplicationStream
    {
        bool bExists = false;
        bool bOpened = false;
        int nStreamID = -1;
    };

    COutcome exchange(const structMICMD& request, structMIRSP& rsp) override;
    bool sendEvent(const structMIEVT& evt) override;
    void tell(const CCommand& command, int nStatus, int nReason) override;
    void alarm() override {}

    CHostileDriver& m_driver;
    CApplicationStream m_aObjects[OBJECTS];
};

#endif
