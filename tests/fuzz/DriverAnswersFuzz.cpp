// Fuzzes the library with whatever a driver may write: responses, events, late ones and torn ones,
// mixed with the operations of an application, one thread, a clock that the input moves.
#include "MIntf.h"
#include "PlatformSeams.h"
#include "ZelMediaServicesImpl.h"

#include <cstdlib>
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

// One thread, which looks into guarded members without their locks.
#pragma clang diagnostic ignored "-Wthread-safety-analysis"

namespace
{
class CIgnore : public CMIntfCompletionHandler
{
public:
    void OnCMIntfCompletion(int, MCSTATUS, CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON) override {}
};

void require(bool bHolds)
{
    if (!bHolds)
        abort();
}

class CHarness
{
public:
    CHarness()
    {
        seams::setThreads(seams::Threads::Pretend);
        seams::freezeTick(1000000);
        m_pmintf = new CMIntf;
        m_pmintf->m_bEventThreadRunning = 0;
        m_pmintf->replaceLogFile(nullptr);
        storeUnlocked(g_pmintf, m_pmintf);
    }
    ~CHarness()
    {
        m_pmintf->m_nConnectID = -1;
        delete m_pmintf;
        storeUnlocked(g_pmintf, nullptr);
        close(m_nReader);
    }
    CHarness(const CHarness&) = delete;
    CHarness& operator=(const CHarness&) = delete;

    void step(FuzzedDataProvider& input)
    {
        connectIfLost();
        const int nStreamID = input.ConsumeIntegralInRange(0, 3);
        switch (input.ConsumeIntegralInRange(0, 7))
        {
        case 0: return operate(input, nStreamID);
        case 1: return operate(input, nStreamID);
        case 2:
        {
            structMIEVT evt = {};
            input.ConsumeData(&evt, sizeof(evt));
            if (input.ConsumeBool()) // an event that matches
            {
                evt.nStreamID = nStreamID;
                evt.nSequenceID = m_pmintf->m_nNextSequenceNo - input.ConsumeIntegralInRange(0u, 4u);
            }
            answers(input);
            return m_pmintf->doneEventPass(evt);
        }
        case 3:
            answers(input);
            m_pmintf->cancel(nStreamID, input.ConsumeIntegral<uint32_t>());
            return;
        case 4: m_pmintf->setDone(nStreamID, &m_handler); return;
        case 5:
            answers(input);
            m_pmintf->closeStream(nStreamID);
            return;
        case 6:
        {
            // Overdue commands are cancelled at the driver one by one: answer each at once.
            seams::advanceTick(input.ConsumeIntegral<uint32_t>());
            for (int n = 0; n < 8; ++n)
                respond(m_pmintf->m_nNextSequenceNo + n, MIRSP_STATUS, 0);
            return m_pmintf->idlePass();
        }
        default: m_pmintf->m_nNextSequenceNo = input.ConsumeIntegral<uint32_t>(); return;
        }
    }

    // Each active command is in the deadline index and nothing else is.
    void checkInvariants()
    {
        size_t nActive = 0;
        for (const auto* const pmap :
             {&m_pmintf->m_mapActiveCommandByStreamIDPlay, &m_pmintf->m_mapActiveCommandByStreamIDRecord})
        {
            for (const auto& entry : *pmap)
            {
                const auto range = m_pmintf->m_mmapActiveCommandByTimeout.equal_range(entry.second->m_ullTimeoutTick);
                bool bFound = false;
                for (auto it = range.first; it != range.second; ++it)
                    bFound = bFound || it->second == entry.second;
                require(bFound);
                ++nActive;
            }
        }
        require(nActive == m_pmintf->m_mmapActiveCommandByTimeout.size());
        drain();
    }

private:
    void connectIfLost()
    {
        if (m_pmintf->m_npipeReq != -1)
            return;
        int anPipe[2];
        require(pipe2(anPipe, O_NONBLOCK) == 0);
        close(m_nReader);
        m_nReader = anPipe[0];
        m_pmintf->m_npipeReq = anPipe[1];
        m_pmintf->m_nConnectID = 7;
    }

    void drain()
    {
        char acRest[4096];
        for (const int nDescriptor : {m_nReader, m_pmintf->m_npipeRsp, m_pmintf->m_npipeEvt})
        {
            while (read(nDescriptor, acRest, sizeof(acRest)) > 0)
            {
            }
        }
    }

    void respond(uint32_t nSequenceNo, MIRSP mirsp, int32_t nResult)
    {
        structMIRSP rsp = {};
        rsp.s_mirsp = mirsp;
        rsp.nRespSequenceNo = nSequenceNo;
        rsp.s_nResult = nResult;
        require(write(m_pmintf->m_npipeRsp, &rsp, sizeof(rsp)) == sizeof(rsp));
    }

    // As many answers as two requests can read, so that none of them waits.
    void answers(FuzzedDataProvider& input)
    {
        drain();
        if (input.ConsumeBool())
        {
            const std::vector<uint8_t> vBytes =
                input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 2 * sizeof(structMIRSP)));
            if (!vBytes.empty())
                require(write(m_pmintf->m_npipeRsp, vBytes.data(), vBytes.size()) > 0);
        }
        for (int n = 0; n < 10; ++n)
        {
            respond(m_pmintf->m_nNextSequenceNo + input.ConsumeIntegralInRange(0u, 2u),
                    static_cast<MIRSP>(input.ConsumeIntegralInRange(-1, 9)), input.ConsumeIntegralInRange(-1, 2));
        }
    }

    void operate(FuzzedDataProvider& input, int nStreamID)
    {
        answers(input);
        structMICMD cmd = {};
        structMIRSP rsp;
        cmd.s_micmd = static_cast<MICMD>(input.ConsumeIntegralInRange<int>(MICMD_CONNECT, MICMD_RECORDGETSTATUS));
        const bool bActive = cmd.s_micmd >= MICMD_PLAYCLIP && cmd.s_micmd <= MICMD_RECORDFILE;
        m_pmintf->sendCommand(nStreamID, &cmd, &rsp, input.ConsumeIntegral<uint32_t>(), &m_handler, input.ConsumeBool(),
                              bActive && input.ConsumeBool());
    }

    CIgnore m_handler;
    CMIntf* m_pmintf;
    int m_nReader = -1;
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    FuzzedDataProvider input(pData, nSize);
    CHarness harness;
    for (int n = 0; n < 200 && input.remaining_bytes() > 0; ++n)
    {
        harness.step(input);
        harness.checkInvariants();
    }
    return 0;
}
