// CSimModel: the model of the rules in a world that chance makes up.
#ifndef SIM_MODEL_H
#define SIM_MODEL_H

#include "Choices.h"
#include "RulesModel.h"
#include "SimScript.h"

// Decides by chance how the driver, the pipes and the application's handler behave, and foretells
// what the library must do then: the script of a step, and the state after it.
class CSimModel : public CRulesModel
{
public:
    static const int OBJECTS = 5;
    static const int HANDLER = 0; // there is one

    CSimModel(const std::string& strResponsePipe, const std::string& strEventPipe, uint64_t ullTick);

    // How many of a thousand exchanges go wrong, how many completions call back, and the highest
    // stream id that the driver gives.
    void setMood(unsigned int nFaults, unsigned int nCallBacks, unsigned int nHighestStream);
    unsigned int highestStream() const { return m_nHighestStream; }

    CSimResult apply(const CSimOperation& operation, CRandomChoices& random, CSimScript& script);
    void finalize(CRandomChoices& random, CSimScript& script);

    std::vector<structMIEVT> m_vEvents; // in the event pipe

private:
    COutcome exchange(const structMICMD& request, structMIRSP& rsp) override;
    bool sendEvent(const structMIEVT& evt) override;
    void tell(const CCommand& command, int nStatus, int nReason) override;
    void alarm() override { expect(CSimAct::Alarm); }

    CSimResult applySend(const CSimOperation& operation);
    COutcome readResponses(const structMICMD& request, structMIRSP& rsp);
    structMIRSP answerTo(const structMICMD& request);
    structMIRSP lateAnswer(uint32_t nSequenceNo);
    CSimAct& expect(CSimAct::Kind kind);

    unsigned int m_nFaults = 0;
    unsigned int m_nCallBacks = 0;
    unsigned int m_nHighestStream = 1;
    CRandomChoices* m_pRandom = nullptr;
    CSimScript* m_pScript = nullptr;
};

// What happens next, chosen for the state that the model is in. In a completion handler only what an
// application may do there.
CSimOperation chooseOperation(const CSimModel& model, CRandomChoices& random, bool bInHandler);

#endif
