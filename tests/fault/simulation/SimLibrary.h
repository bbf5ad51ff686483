// CSimLibrary: the library in a simulation, held against the script and the state that a model foretells.
#ifndef SIM_LIBRARY_H
#define SIM_LIBRARY_H

#include "MIntf.h"
#include "RulesCompare.h"
#include "SimModel.h"
#include "SimSystem.h"
#include "ZelMediaStreamImpl.h"

#include <memory>
#include <string>
#include <vector>

// One CMIntf without event thread, in g_pmintf. Its system calls are answered by the script.
class CSimLibrary : private CSimSystem, private CMIntfCompletionHandler
{
public:
    // Only what writes its trace lines can tell how many commands are alive.
    CSimLibrary(uint64_t ullTick, bool bTraced);
    ~CSimLibrary() override;
    CSimLibrary(const CSimLibrary&) = delete;
    CSimLibrary& operator=(const CSimLibrary&) = delete;

    std::string responsePipe() const { return m_pmintf->m_szRspPipe; }
    std::string eventPipe() const { return m_pmintf->m_szEvtPipe; }
    void setNextSequenceNo(uint32_t nSequenceNo) { m_pmintf->m_nNextSequenceNo = nSequenceNo; }

    // Runs an operation; then the script has been acted out, the result is the one expected, and
    // nothing differs from the model. What is wrong, empty if nothing.
    std::string run(const CSimOperation& operation, const CSimScript& script, const CSimResult& expected,
                    const CSimModel& model);
    // The same for the end of the interface, after which no command may be left.
    std::string finalize(const CSimScript& script);

private:
    class CLog;

    ssize_t onWrite(int nDescriptor, const void* pBytes, size_t nBytes) override;
    ssize_t onRead(int nDescriptor, void* pBytes, size_t nBytes) override;
    int onWait() override;
    void OnCMIntfCompletion(int nStreamID, MCSTATUS mcstatus,
                            CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON reason) override;
    void onAlarm();

    void destroyInterface();
    void begin(const CSimScript& script);
    std::string end();
    const CSimAct* nextAct(CSimAct::Kind kind, const char* pszDone);
    void fault(const std::string& strText);

    CSimResult execute(const CSimOperation& operation);
    CSimResult send(const CSimOperation& operation);
    CSimResult openStream(const CSimOperation& operation);
    void idle(const CSimOperation& operation);
    void loseDriver();

    void expectEqual(int64_t llExpected, int64_t llFound, const char* pszWhat);

    const bool m_bTraced;
    CMIntf* m_pmintf = nullptr;
    std::unique_ptr<CRulesCompare> m_pCompare;
    int m_nDriver = -1; // the reading end of the request pipe, while a driver is there
    std::vector<std::unique_ptr<CZelMediaStreamImpl>> m_vObjects;
    long m_nAlive = 0; // commands made and not destroyed
    const CSimScript* m_pScript = nullptr;
    size_t m_nNextAct = 0;
    std::string m_strFault;
};

#endif
