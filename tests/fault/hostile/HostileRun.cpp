#include "HostileRun.h"

#include <cstring>

// One thread, which sets a guarded member without its lock.
#ifdef __clang__
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace
{
const uint64_t FIRST_TICK = 1000000;
const size_t MAX_WAITING_BYTES = 8192; // the pipes never fill
const size_t MAX_QUEUED = 4;
} // namespace

CHostileRun::CHostileRun(CChoices& choices, uint32_t nFirstSequenceNo)
    : m_choices(choices), m_driver(choices), m_model(m_driver, FIRST_TICK), m_library(FIRST_TICK)
{
    m_library.mintf().m_nNextSequenceNo = m_model.m_nNextSequenceNo = nFirstSequenceNo;
    m_driver.setHonest(true);
    idle();
    m_driver.setHonest(false);
}

bool CHostileRun::step(Kind kind)
{
    switch (kind)
    {
    case Request: request(); break;
    case Start: start(); break;
    case Events: events(); break;
    case Responses: responses(); break;
    case Cancel: cancel(); break;
    case SetDone: setDone(); break;
    case OpenStream: openStream(); break;
    case CloseStream: closeStream(); break;
    case OpenFile: openFile(); break;
    case CloseFile: closeFile(); break;
    case Idle: idle(); break;
    case Driver: driver(); break;
    }
    if (m_model.m_nConnectID == -1 && !m_choices.oneIn(4))
        reconnect();
    return fault().empty();
}

void CHostileRun::expectStatus(int nExpected, int nStatus, const char* pszWhat)
{
    m_library.expectEqual(nExpected, nStatus, pszWhat);
    ++m_mapStatuses[nStatus];
}

// The caller has the response with the number of its request, and otherwise an empty one.
int CHostileRun::sendBoth(CHostileModel::CCommand command, bool bUsePlayQueue)
{
    structMIRSP rspExpected;
    structMIRSP rsp;
    const int nExpected = m_model.send(command, bUsePlayQueue, rspExpected);
    const int nStatus = m_library.run(m_model, [&](CMIntf& mintf) {
        return mintf.sendCommand(command.nStreamID, &command.request, &rsp, command.nTimeout,
                                 m_library.handler(command.nHandler), command.bDone ? 0 : 1, bUsePlayQueue);
    });
    expectStatus(nExpected, nStatus, "status of a request");
    if (nExpected != MCS_PIPEREAD)
        m_library.expectEqual(0, memcmp(&rspExpected, &rsp, sizeof(rsp)), "the answer that a request was given");
    return nStatus;
}

void CHostileRun::request()
{
    static const MICMD aImmediate[] = {MICMD_PING,          MICMD_RECORDGETTIME, MICMD_RECORDGETSTATUS,
                                       MICMD_RECORDGETTIME, MICMD_PLAYGETSTATS,  MICMD_DUMP};
    CHostileModel::CCommand command;
    command.request.s_micmd = m_choices.pick(aImmediate);
    command.request.nConnectID = m_model.m_nConnectID;
    command.nStreamID = stream();
    command.request.stream.nStreamID = command.nStreamID;
    sendBoth(command, false);
}

void CHostileRun::start()
{
    static const MICMD aActive[] = {MICMD_PLAYCLIP, MICMD_PLAYFILE, MICMD_RECORDFILE};
    CHostileModel::CCommand command;
    command.request.s_micmd = m_choices.pick(aActive);
    command.request.nConnectID = m_model.m_nConnectID;
    command.nStreamID = stream();
    command.request.stream.nStreamID = command.nStreamID;
    command.bDone = !m_choices.oneIn(3);
    command.nTimeout = m_choices.oneIn(2) ? m_choices.below(100) : 0xFFFFFFFFu;
    command.nHandler = m_choices.oneIn(8) ? -1 : freeHandler();
    using Place = CHostileModel::Place;
    for (const Place place : {Place::QueuedPlay, Place::QueuedRecord})
        if (m_model.at(place, command.nStreamID).size() >= MAX_QUEUED)
            return;
    sendBoth(command, command.request.s_micmd == MICMD_RECORDFILE && m_choices.oneIn(2));
}

void CHostileRun::events()
{
    if (!m_choices.oneIn(8) && m_model.m_pipeEvent.size() < MAX_WAITING_BYTES)
    {
        const std::vector<uint8_t> vBytes = m_driver.events(m_model.running(), m_model.m_nNextSequenceNo);
        m_model.m_pipeEvent.append(vBytes);
        m_library.writeEvents(vBytes);
    }
    m_model.readEvents();
    m_library.run(m_model, [&](CMIntf&) {
        m_library.readEvents();
        return 0;
    });
}

void CHostileRun::responses()
{
    if (m_model.m_pipeResponse.size() >= MAX_WAITING_BYTES)
        return;
    const std::vector<uint8_t> vBytes = m_driver.lateResponses(m_model.m_nNextSequenceNo);
    m_model.m_pipeResponse.append(vBytes);
    m_library.writeResponses(vBytes);
}

void CHostileRun::cancel()
{
    const int nStreamID = stream();
    const uint32_t nType = 1 + m_choices.below(2);
    const int nExpected = m_model.cancel(nStreamID, nType);
    const int nStatus = m_library.run(m_model, [&](CMIntf& mintf) { return mintf.cancel(nStreamID, nType); });
    expectStatus(nExpected, nStatus, "status of a cancel");
}

void CHostileRun::setDone()
{
    const int nStreamID = stream();
    const int nHandler = freeHandler();
    m_model.setDone(nStreamID, nHandler);
    const int nStatus =
        m_library.run(m_model, [&](CMIntf& mintf) { return mintf.setDone(nStreamID, m_library.handler(nHandler)); });
    expectStatus(MCS_OK, nStatus, "status of setDone");
}

void CHostileRun::openStream()
{
    const int nObject = object();
    if (m_model.exists(nObject))
        destroyObject(nObject);
    const int nExpected = m_model.openObject(nObject);
    const int nStatus = m_library.run(m_model, [&](CMIntf&) { return m_library.openObject(nObject); });
    expectStatus(nExpected, nStatus, "status of an opened stream");
    if (nExpected != 0)
        destroyObject(nObject);
}

void CHostileRun::closeStream()
{
    const int nObject = object();
    if (m_model.exists(nObject))
        return destroyObject(nObject);
    const int nStreamID = stream();
    const int nExpected = m_model.closeStream(nStreamID);
    const int nStatus = m_library.run(m_model, [&](CMIntf& mintf) { return mintf.closeStream(nStreamID); });
    expectStatus(nExpected, nStatus, "status of a closed stream");
}

void CHostileRun::destroyObject(int nObject)
{
    m_model.destroyObject(nObject);
    m_library.run(m_model, [&](CMIntf&) {
        m_library.destroyObject(nObject);
        return 0;
    });
}

int CHostileRun::object()
{
    return static_cast<int>(m_choices.below(CHostileModel::OBJECTS));
}

void CHostileRun::openFile()
{
    std::string strName = "/p/" + std::to_string(m_choices.below(3)) + ".wav";
    int nExpectedID;
    int nFileID = 0;
    const int nExpected = m_model.openFile(strName, nExpectedID);
    const int nStatus = m_library.run(m_model, [&](CMIntf& mintf) { return mintf.openFile(strName.data(), &nFileID); });
    expectStatus(nExpected, nStatus, "status of an opened file");
    m_library.expectEqual(nExpectedID, nFileID, "id of an opened file");
    m_vFileIDs.push_back(nFileID);
}

void CHostileRun::closeFile()
{
    if (m_vFileIDs.empty())
        return;
    const size_t nWhich = m_choices.below(static_cast<uint32_t>(m_vFileIDs.size()));
    const int nFileID = m_vFileIDs[nWhich];
    m_vFileIDs.erase(m_vFileIDs.begin() + static_cast<std::ptrdiff_t>(nWhich));
    const int nExpected = m_model.closeFile(nFileID);
    const int nStatus = m_library.run(m_model, [&](CMIntf& mintf) { return mintf.closeFile(nFileID); });
    expectStatus(nExpected, nStatus, "status of a closed file");
}

void CHostileRun::idle()
{
    m_model.m_ullTick += m_choices.oneIn(4) ? m_choices.below(120000) : 1000;
    m_model.idle(m_model.m_bDriver);
    m_library.run(m_model, [&](CMIntf& mintf) {
        mintf.idlePass();
        return 0;
    });
}

void CHostileRun::driver()
{
    m_model.m_bDriver = !m_model.m_bDriver;
    m_library.setDriver(m_model.m_bDriver);
}

// A connect that failed, or that gave -1, is not tried again while the request pipe stays open.
void CHostileRun::reconnect()
{
    m_model.m_bDriver = true;
    m_library.setDriver(true);
    if (m_model.m_bRequestPipe)
    {
        m_library.dropConnection();
        m_model.loseConnection();
    }
    idle();
}

int CHostileRun::stream()
{
    static const int anOthers[] = {-1, 0, -2, 1000000};
    return m_choices.oneIn(16) ? m_choices.pick(anOthers) : static_cast<int>(1 + m_choices.below(5));
}

int CHostileRun::freeHandler()
{
    for (int n = 0; n < CHostileLibrary::HANDLERS; ++n)
        if (!m_model.isHandlerUsed(n))
            return n;
    return -1;
}

bool CHostileRun::recover()
{
    m_driver.setHonest(true);
    m_library.emptyResponses();
    m_model.m_pipeResponse.clear();
    m_model.readEvents();
    m_library.run(m_model, [&](CMIntf&) {
        m_library.readEvents();
        return 0;
    });
    if (m_model.m_nConnectID == -1 || !m_model.m_bDriver)
        reconnect();
    for (int nStreamID = 1; nStreamID <= 5 && fault().empty(); ++nStreamID)
    {
        m_model.closeStream(nStreamID);
        m_library.run(m_model, [&](CMIntf& mintf) { return mintf.closeStream(nStreamID); });
        CHostileModel::CCommand command;
        command.request.s_micmd = MICMD_PLAYFILE;
        command.nStreamID = nStreamID;
        command.nHandler = freeHandler();
        m_library.expectEqual(0, sendBoth(command, false), "status of an honest play");
        const structMIEVT evt = {MIEVT_DONE, nStreamID, m_model.m_nNextSequenceNo - 1, 0};
        const uint8_t* const pBytes = reinterpret_cast<const uint8_t*>(&evt);
        m_model.m_pipeEvent.append(evt);
        m_library.writeEvents({pBytes, pBytes + sizeof(evt)});
        m_model.readEvents();
        m_library.expectEqual(1, std::ssize(m_model.m_vReports), "completions of an honest play");
        m_library.run(m_model, [&](CMIntf&) {
            m_library.readEvents();
            return 0;
        });
    }
    return fault().empty();
}
