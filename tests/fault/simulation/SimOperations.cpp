// Chooses what happens next in a simulation, so that most of it goes far and some of it goes wrong.
#include "SimModel.h"

#include <cstring>

namespace
{
int anyStream(const CSimModel& model, CRandomChoices& random)
{
    if (model.m_vStreams.empty() || random.oneIn(8))
        return static_cast<int>(random.below(model.highestStream() + 2)) - 1;
    return model.m_vStreams[random.below(static_cast<unsigned int>(model.m_vStreams.size()))].nStreamID;
}

std::string anyFile(CRandomChoices& random)
{
    std::string strName = "/p/";
    strName += static_cast<char>('a' + random.below(4));
    return random.oneIn(20) ? strName + std::string(300, 'x') : strName;
}

void compose(CSimOperation& operation, CRandomChoices& random)
{
    static const MICMD aCodes[] = {MICMD_PLAYFILE,   MICMD_PLAYFILE,      MICMD_PLAYFILE,       MICMD_PLAYCLIP,
                                   MICMD_PLAYCLIP,   MICMD_RECORDFILE,    MICMD_RECORDFILE,     MICMD_RECORDFILE,
                                   MICMD_RECORDFILE, MICMD_RECORDGETTIME, MICMD_RECORDGETSTATUS};
    static const uint32_t anTimeouts[] = {0, 1, 2, 5, 60, 300, 0xFFFFFFFFu, 0xFFFFFFFFu, 4294968, 86400};
    structMICMD& request = operation.request;
    request.s_micmd = random.pick(aCodes);
    request.nSequenceNo = static_cast<uint32_t>(random.next()); // whatever a composer left there
    for (unsigned char& uc : request.abBody)
        uc = static_cast<unsigned char>(random.next());
    request.stream.nStreamID = operation.nStreamID;
    if (request.s_micmd == MICMD_RECORDGETTIME || request.s_micmd == MICMD_RECORDGETSTATUS)
    {
        operation.nTimeout = 0xFFFFFFFFu;
        operation.bHandler = false;
        return;
    }
    operation.nTimeout = random.pick(anTimeouts);
    operation.nNoDone = random.oneIn(3);
    operation.bHandler = !random.oneIn(8);
    operation.bUsePlayQueue = request.s_micmd == MICMD_RECORDFILE && random.oneIn(2);
}

int32_t anyStatus(CRandomChoices& random)
{
    static const int32_t anStatuses[] = {0, 0, 0, 0, 0, 0, 0, 0, 3, 3, 3, 7, 16, 34, 46, 2, -1, 41, 42, 43, 44, 45};
    return random.pick(anStatuses);
}

// Mostly the end of something that is active; also a late one, or one that nothing was told of.
structMIEVT driverEvent(const CSimModel& model, CRandomChoices& random)
{
    const std::vector<const CSimModel::CCommand*> vActive = model.byDeadline();
    structMIEVT evt = {MIEVT_DONE, anyStream(model, random), model.m_nNextSequenceNo - random.below(5),
                       anyStatus(random)};
    if (!vActive.empty() && !random.oneIn(6))
    {
        const auto& command = *vActive[random.below(static_cast<unsigned int>(vActive.size()))];
        evt.nStreamID = command.nStreamID;
        evt.nSequenceID = command.request.nSequenceNo;
    }
    if (random.oneIn(30))
        evt.s_mievt = static_cast<MIEVT>(random.oneIn(2) ? MIEVT_NULL : 2);
    return evt;
}

// To the edges of what is measured in time: the first deadline, the alarm, the ping.
uint64_t anyPause(const CSimModel& model, CRandomChoices& random)
{
    static const uint64_t aullPauses[] = {0, 100, 100, 999, 1000, 1000, 1000, 1000, 1000, 5000, 20000, 60000};
    const std::vector<const CSimModel::CCommand*> vActive = model.byDeadline();
    if (random.oneIn(8) && model.m_ullTick <= model.m_ullLastResponse + 20000)
        return model.m_ullLastResponse + 20000 + random.below(2) - model.m_ullTick;
    if (vActive.empty() || !random.oneIn(4))
        return random.pick(aullPauses);
    const uint64_t ullDeadline = vActive[random.below(static_cast<unsigned int>(vActive.size()))]->ullDeadline +
                                 (random.oneIn(6) ? 300000 : 0) - random.below(2);
    return ullDeadline > model.m_ullTick ? ullDeadline - model.m_ullTick : 0;
}

CSimOperation quietSecond(const CSimModel& model, CRandomChoices& random)
{
    CSimOperation operation;
    operation.kind = CSimOperation::Idle;
    operation.bDriverThere = !random.oneIn(6);
    operation.ullAdvance = anyPause(model, random);
    return operation;
}

CSimOperation::Kind anyKind(const CSimModel& model, CRandomChoices& random, bool bInHandler)
{
    typedef CSimOperation Op;
    static const Op::Kind aOfApplication[] = {
        Op::Send,       Op::Send,        Op::Send,     Op::Send,      Op::Send,    Op::Send, Op::SetDone, Op::Cancel,
        Op::OpenStream, Op::CloseStream, Op::OpenFile, Op::CloseFile, Op::MapFile, Op::Send, Op::Send,    Op::Send};
    static const Op::Kind aOfThread[] = {Op::DriverEvent,  Op::DriverEvent,  Op::DriverEvent,  Op::DriverEvent,
                                         Op::DeliverEvent, Op::DeliverEvent, Op::DeliverEvent, Op::DeliverEvent,
                                         Op::DeliverEvent, Op::DeliverEvent, Op::Idle,         Op::Idle};
    static const Op::Kind aOfLibrary[] = {Op::ClearActive, Op::ClearQueues, Op::ClearPlay,
                                          Op::ClearRecord, Op::Reopen,      Op::Ping};
    if (bInHandler)
        return random.pick(aOfApplication);
    if (random.oneIn(40))
        return random.pick(aOfLibrary);
    if (model.m_bRequestPipe && random.oneIn(model.m_nConnectID == -1 ? 8 : 100))
        return Op::LoseDriver;
    const Op::Kind kind = random.oneIn(2) ? random.pick(aOfApplication) : random.pick(aOfThread);
    return kind == Op::DeliverEvent && model.m_vEvents.empty() ? Op::DriverEvent : kind;
}
} // namespace

CSimOperation chooseOperation(const CSimModel& model, CRandomChoices& random, bool bInHandler)
{
    if (!bInHandler && model.m_nConnectID == -1 && random.oneIn(3))
        return quietSecond(model, random);
    CSimOperation operation;
    operation.kind = anyKind(model, random, bInHandler);
    operation.nStreamID = anyStream(model, random);
    operation.bHandler = !random.oneIn(8);
    switch (operation.kind)
    {
    case CSimOperation::Send:
        operation.request.nConnectID = model.m_nConnectID;
        compose(operation, random);
        break;
    case CSimOperation::Cancel: operation.nArgument = static_cast<int>(1 + random.below(2)); break;
    case CSimOperation::OpenStream:
        operation.nArgument = static_cast<int>(random.below(1000));
        operation.nObject = static_cast<int>(random.below(CSimModel::OBJECTS));
        operation.strName = random.oneIn(4) ? "a call with a name of more than 31 bytes" : "call";
        break;
    case CSimOperation::OpenFile: operation.strName = anyFile(random); break;
    case CSimOperation::CloseFile:
    case CSimOperation::MapFile:
        operation.nArgument = static_cast<int>(random.below(static_cast<unsigned int>(model.m_nNextFileID) + 1));
        break;
    case CSimOperation::ClearActive: operation.nArgument = anyStatus(random); break;
    case CSimOperation::DriverEvent: operation.evt = driverEvent(model, random); break;
    case CSimOperation::DeliverEvent: operation.evt = model.m_vEvents.front(); break;
    case CSimOperation::Idle: return quietSecond(model, random);
    default: break;
    }
    return operation;
}
