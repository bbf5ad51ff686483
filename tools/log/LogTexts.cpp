// The lines of the library's log that tell of something, as the library's sources have them.
#include "log/LogTexts.h"

#include "log/LogNames.h"

#include "MediaProtocol.h"

namespace
{
constexpr unsigned int LOSS = LOG_KIND_CONNECTION | LOG_KIND_ERRORS;
constexpr bool RECORD_SIDE = true;

// A test looks for each of these formats in the library's sources.
constexpr CLogText TEXTS[] = {
    {LOG_EVENT_DESTROYED, LOG_KIND_OTHER, "(Info) CCommand::~CCommand this = 0x%x", "A"},
    {LOG_EVENT_CONSTRUCTED, LOG_KIND_OTHER, "(Info) CCommand::CCommand this = 0x%x", "A"},

    {LOG_EVENT_NEW_COMMAND, LOG_KIND_OTHER, "(Info) CMIntf::sendCommand nStreamID = %d, pcommand = 0x%x", "SA"},
    {LOG_EVENT_REQUEST, LOG_KIND_REQUESTS, "CMIntf::sendCommand (%d), cmd %s", "SK"},
    {LOG_EVENT_RESULT, LOG_KIND_RESPONSES, "<<<CMIntf::sendCommand (%d), rsp %s, mcstatus 0x%08X", "S-X"},
    {LOG_EVENT_SENDING, LOG_KIND_REQUESTS, "CMIntf::sendCommand - sending", ""},
    {LOG_EVENT_SENT_NUMBER, LOG_KIND_REQUESTS,
     "(Info) CMIntf::sendCommand, cmd %s, sequence number %lu, m_nStreamID = %d", "KNS"},
    {LOG_EVENT_RESPONSE, LOG_KIND_RESPONSES,
     "(Info) CMIntf::sendCommand, tried to get correct response, trycount = %d, psrsp->nRespSequenceNo = %lu, "
     "psrsp->s_mirsp = %s",
     "-N-"},
    {LOG_EVENT_WITHDRAWN, LOG_KIND_OTHER,
     "CMIntf::sendCommand - removing from active command, calling remActiveCommand", ""},
    {LOG_EVENT_DRIVER_LOST, LOSS, "CMIntf::sendCommand - closing request pipe", ""},
    {LOG_EVENT_DRIVER_SILENT, LOSS, "CMIntf::sendCommand - oops timeout clear cmd", ""},

    {LOG_EVENT_ENTERING, LOG_KIND_REQUESTS, "CMIntf::processPlayActiveCommand - Entering, pcommand->m_nStreamID = %d",
     "-"},
    {LOG_EVENT_ENTERING, LOG_KIND_REQUESTS, "CMIntf::processRecordActiveCommand - Entering", "", RECORD_SIDE},
    {LOG_EVENT_QUEUED, LOG_KIND_REQUESTS, "CMIntf::processPlayActiveCommand - queueing", ""},
    {LOG_EVENT_QUEUED, LOG_KIND_REQUESTS, "CMIntf::processRecordActiveCommand - queueing", "", RECORD_SIDE},
    {LOG_EVENT_ACTIVE, LOG_KIND_REQUESTS, "CMIntf::processPlayActiveCommand - Current active command", ""},
    {LOG_EVENT_ACTIVE, LOG_KIND_REQUESTS, "CMIntf::processRecordActiveCommand - Current active command", "",
     RECORD_SIDE},
    {LOG_EVENT_NUMBERED, LOG_KIND_REQUESTS,
     " (Info) CMIntf::processPlayActiveCommand called, SequenceNo = %lu, sid = %d, cmd = %s", "NSK"},
    {LOG_EVENT_NUMBERED, LOG_KIND_REQUESTS,
     " (Info) CMIntf::processRecordActiveCommand called, SequenceNo = %lu, sid = %d, cmd = %s", "NSK", RECORD_SIDE},
    {LOG_EVENT_UNLINKED, LOG_KIND_OTHER,
     " (Info) CMIntf::CMIntf::remActiveCommand called, sid = %d, nSequenceIDParam = %d", "SN"},

    {LOG_EVENT_EVENT, LOG_KIND_EVENTS,
     "CMIntf::eventThreadFunc, read event, nSequenceID = (%d), nStreamID = (%d), evt %s, stat %d\n", "NS-C"},
    {LOG_EVENT_REPORTING, LOG_KIND_COMPLETIONS,
     " (Info) CMIntf::eventThreadFunc before OnCMIntfCompletion,m_pcomplHandler ,sid = %d, nSequenceID = %d", "SN"},
    {LOG_EVENT_REPORTING, LOG_KIND_COMPLETIONS,
     " (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion ,sid = %d, nSequenceID = %d", "SN"},
    {LOG_EVENT_REPORTING, LOG_KIND_COMPLETIONS,
     " (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion-2 ,sid = %d, nSequenceID = %d", "SN"},
    {LOG_EVENT_REPORTING, LOG_KIND_COMPLETIONS,
     " (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion-3 ,sid = %d, nSequenceID = %d", "SN", RECORD_SIDE},
    {LOG_EVENT_REPORTING, LOG_KIND_COMPLETIONS,
     " (Info) CMIntf::eventThreadFunc  before OnCMIntfCompletion-4 ,sid = %d, nSequenceID = %d", "SN"},
    {LOG_EVENT_COMPLETION, LOG_KIND_COMPLETIONS,
     "CZelMediaServicesImpl::OnCMIntfCompletion (0x%08X), sid %d, status 0x%08X, reason 0x%08X", "ASXR"},
    {LOG_EVENT_TIMED_OUT, LOG_KIND_OTHER,
     "CMIntf::eventThreadFunc - Sending MICMD_CANCEL, m_nConnectID = %d, m_nStreamID = %d", "-S"},
    {LOG_EVENT_CONNECTED, LOG_KIND_CONNECTION,
     "(Info) CMIntf::eventThreadFunc, MICMD_CONNECT returned s_nConnectID = \"%d\", : fileid = (%d)", ""},
    {LOG_EVENT_CONNECTION, LOG_KIND_CONNECTION, "CMIntf::eventThreadFunc, about to open request pipe \"%s\"\n", ""},
    {LOG_EVENT_CONNECTION, LOG_KIND_CONNECTION, "(Error) CMIntf::eventThreadFunc, can't open request pipe \"%s\" (%d)",
     ""},
    {LOG_EVENT_CONNECTION, LOG_KIND_CONNECTION, "CMIntf::reopenClipFiles", ""},
    {LOG_EVENT_ALARM, LOG_KIND_ERRORS, "CMIntf::eventThreadFunc: ActiveCommand command timed out", ""},
    {LOG_EVENT_STREAM_LOST, LOG_KIND_ERRORS,
     "(Error) CMIntf::markStreamInvalid, cannot open/create/read/write pipe, errrno= %d", ""},
    {LOG_EVENT_ALARM, LOG_KIND_ERRORS, "ZelMediaServices CMIntf::markStreamInvalid, cannot open/create/read/write pipe",
     ""},

    {LOG_EVENT_CANCEL, LOG_KIND_CALLS, "CMIntf::cancel, id %d", "S"},
    {LOG_EVENT_OWN_COMPLETION, LOG_KIND_EVENTS,
     "(Info) CMIntf::setDone calling addActiveCommand called RECORD, seqno = %d, sid = %d", "-S"},
    {LOG_EVENT_STREAM_CLOSING, LOG_KIND_CALLS, "CMIntf::closeStream, id %d", "S"},
    {LOG_EVENT_STREAM_CLEARED, LOG_KIND_OTHER, "Brudel702 CMIntf::closeStream, calling remActiveCommand id %d", "S"},
    {LOG_EVENT_STREAM_OPENED, LOG_KIND_RESPONSES, "<<<CMIntf::openConferenceStream (callid %s, legid %u), streamid %d",
     "TLS"},
    {LOG_EVENT_PROCESS_STARTED, LOG_KIND_CONNECTION, "CMIntf::initialize", "E"},
    {LOG_EVENT_PROCESS_ENDING, LOG_KIND_CONNECTION, "CMIntf::finalize", "E"},
    {LOG_EVENT_STREAM_ADDED, LOG_KIND_OTHER, "CZelMediaServicesImpl::addStream 0x%08X, id %d", "AS"},
};

constexpr CLogCall CALLS[] = {
    {"playAddFile", commandBit(MICMD_PLAYFILE)},
    {"playAddPhrase", commandBit(MICMD_PLAYCLIP)},
    {"recordToFile", commandBit(MICMD_RECORDFILE)},
    {"recordToFileWithPromptPhrase", commandBit(MICMD_PLAYCLIP) | commandBit(MICMD_RECORDFILE)},
    {"playCancel", commandBit(MICMD_CANCEL)},
    {"recordCancel", commandBit(MICMD_CANCEL)},
    {"initialize", commandBit(MICMD_OPENSTREAM)},
    {"~CZelMediaStreamImpl", commandBit(MICMD_CLOSESTREAM)},
    {"remStream", commandBit(MICMD_CLOSESTREAM)},
    {"openPhraseFile", commandBit(MICMD_OPENFILE)},
    {"closePhraseFile", commandBit(MICMD_CLOSEFILE)},
    {"recordGetTimeMilliseconds", commandBit(MICMD_RECORDGETTIME)},
    {"recordGetStatus", commandBit(MICMD_RECORDGETSTATUS)},
    {"dump", commandBit(MICMD_DUMP)}};
} // namespace

std::span<const CLogText> logTexts()
{
    return TEXTS;
}

std::span<const CLogCall> logCalls()
{
    return CALLS;
}
