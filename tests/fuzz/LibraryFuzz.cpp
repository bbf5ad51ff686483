// Fuzzes the library between an application and whoever writes into its pipes: what each operation returns and
// who is told of what has to be what a model of the rules makes of the bytes.
//
// Built three times, with operations that look most at responses, at events, or at everything.
#include "HostileRun.h"

#include <cstdio>
#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>

namespace
{
#if defined(FUZZ_RESPONSES)
const CHostileRun::Kind KINDS[] = {CHostileRun::Request,  CHostileRun::Start,     CHostileRun::OpenStream,
                                   CHostileRun::OpenFile, CHostileRun::Responses, CHostileRun::CloseFile,
                                   CHostileRun::Cancel,   CHostileRun::Idle};
#elif defined(FUZZ_EVENTS)
const CHostileRun::Kind KINDS[] = {CHostileRun::Start,      CHostileRun::Events, CHostileRun::SetDone,
                                   CHostileRun::OpenStream, CHostileRun::Cancel, CHostileRun::Start,
                                   CHostileRun::Events,     CHostileRun::Idle};
#else
const CHostileRun::Kind KINDS[] = {CHostileRun::Request,    CHostileRun::Start,       CHostileRun::Events,
                                   CHostileRun::Responses,  CHostileRun::Cancel,      CHostileRun::SetDone,
                                   CHostileRun::OpenStream, CHostileRun::CloseStream, CHostileRun::OpenFile,
                                   CHostileRun::CloseFile,  CHostileRun::Idle,        CHostileRun::Driver};
#endif

class CFuzzedChoices : public CChoices
{
public:
    explicit CFuzzedChoices(FuzzedDataProvider& input) : m_input(input) {}

    uint32_t below(uint32_t nLimit) override { return m_input.ConsumeIntegralInRange(0u, nLimit - 1); }
    std::vector<uint8_t> bytes(size_t nBytes) override
    {
        std::vector<uint8_t> vBytes = m_input.ConsumeBytes<uint8_t>(nBytes);
        vBytes.resize(nBytes);
        return vBytes;
    }

private:
    FuzzedDataProvider& m_input;
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    FuzzedDataProvider input(pData, nSize);
    CFuzzedChoices choices(input);
    CHostileRun run(choices, choices.oneIn(4) ? 0xFFFFFFF0u + choices.below(16) : 1);
    bool bAsForetold = true;
    for (int n = 0; n < 300 && input.remaining_bytes() > 0 && bAsForetold; ++n)
        bAsForetold = run.step(choices.pick(KINDS));
    if (!bAsForetold || !run.recover())
    {
        fprintf(stderr, "not as foretold: %s\n", run.fault().c_str());
        abort();
    }
    return 0;
}
