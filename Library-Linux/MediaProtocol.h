// The records, codes and pipe names that client processes and the media driver share.
//
// This header is the whole contract between the two sides of the pipes: the library and the
// drivers include it and share nothing else. A record is always moved whole, by one write or one
// read of its full size. All fields are 32 bits wide, little-endian, without padding.
#ifndef MEDIA_PROTOCOL_H
#define MEDIA_PROTOCOL_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string_view>

#define MI_REQUEST_PIPE "/tmp/OrvMediaIntf-Req"           // created by the driver
#define MI_RESPONSE_PIPE_PREFIX "/tmp/OrvMediaIntf-Rsp-p" // + process id in decimal
#define MI_EVENT_PIPE_PREFIX "/tmp/OrvMediaIntf-Evt-p"    // + process id in decimal

enum
{
    MI_PIPE_NAME_SIZE = 32,  // bytes, terminating NUL included
    MI_CALL_ID_SIZE = 32,    // bytes, terminating NUL included
    MI_FILE_NAME_SIZE = 256, // bytes, terminating NUL included
    MI_SAMPLES_PER_SECOND = 8000,
    MI_SAMPLES_PER_MILLISECOND = MI_SAMPLES_PER_SECOND / 1000
};

enum MICMD : int32_t
{
    MICMD_NULL = 0,
    MICMD_CONNECT = 1,
    MICMD_DISCONNECT = 2,
    MICMD_OPENFILE = 3,
    MICMD_CLOSEFILE = 4,
    MICMD_OPENSTREAM = 5,
    MICMD_CLOSESTREAM = 6,
    MICMD_PLAYCLIP = 7,
    MICMD_PLAYFILE = 8,
    MICMD_RECORDFILE = 9,
    MICMD_CANCEL = 10,
    MICMD_PLAYGETSTATS = 11,
    MICMD_RECORDGETSTATS = 12,
    MICMD_PING = 13,
    MICMD_DUMP = 14,
    MICMD_RECORDGETTIME = 15,
    MICMD_RECORDGETSTATUS = 16
};

enum MIRSP : int32_t
{
    MIRSP_NULL = 0,
    MIRSP_STATUS = 1,
    MIRSP_CONNECT = 2,
    MIRSP_OPENFILE = 3,
    MIRSP_OPENSTREAM = 4,
    MIRSP_PLAYGETSTATS = 5,
    MIRSP_RECORDGETSTATS = 6,
    MIRSP_RECORDGETTIME = 7,
    MIRSP_RECORDGETSTATUS = 8
};

enum MIEVT : int32_t
{
    MIEVT_NULL = 0,
    MIEVT_DONE = 1
};

// nCancelType of MICMD_CANCEL.
enum : uint32_t
{
    MICANCEL_PLAY = 1,
    MICANCEL_RECORD = 2
};

// s_nResult of MIRSP_STATUS: this one value is a refusal, every other one is success.
enum : int32_t
{
    MISTATUS_OK = 0,
    MISTATUS_FAILED = 1
};

// A request, client to driver. The body is by command; bytes that a command does not use carry
// no meaning and may hold anything.
struct structMICMD
{
    struct ConnectBody
    {
        char szRspPipe[MI_PIPE_NAME_SIZE];
        char szEvtPipe[MI_PIPE_NAME_SIZE];
    };
    struct OpenFileBody
    {
        char szFileName[MI_FILE_NAME_SIZE];
    };
    struct CloseFileBody
    {
        int32_t nFileID; // the driver's id
    };
    struct OpenStreamBody
    {
        char szCallID[MI_CALL_ID_SIZE];
        uint32_t nLegID;
    };
    struct StreamBody // MICMD_CLOSESTREAM, MICMD_RECORDGETTIME, MICMD_RECORDGETSTATUS
    {
        int32_t nStreamID;
    };
    struct PlayClipBody
    {
        int32_t nStreamID;
        int32_t nFileID; // the driver's id
        uint32_t nOffset;
        uint32_t nLength;
        uint32_t nPlayParam;
    };
    struct PlayFileBody
    {
        int32_t nStreamID;
        char szFileName[MI_FILE_NAME_SIZE];
        uint32_t nStartPos; // samples
        uint32_t nPlayParam;
    };
    struct RecordFileBody
    {
        int32_t nStreamID;
        char szFileName[MI_FILE_NAME_SIZE];
        uint32_t nMaxSamples;
    };
    struct CancelBody
    {
        int32_t nStreamID;
        uint32_t nCancelType; // MICANCEL_PLAY or MICANCEL_RECORD
    };

    MICMD s_micmd;
    int32_t nConnectID;   // as returned in MIRSP_CONNECT; without meaning in MICMD_CONNECT
    uint32_t nSequenceNo; // unique only together with nConnectID
    union
    {
        ConnectBody connect;
        OpenFileBody openFile;
        CloseFileBody closeFile;
        OpenStreamBody openStream;
        StreamBody stream;
        PlayClipBody playClip;
        PlayFileBody playFile;
        RecordFileBody recordFile;
        CancelBody cancel;
        unsigned char abBody[268];
    };
};

// A response, driver to client: one per request.
struct structMIRSP
{
    MIRSP s_mirsp;
    uint32_t nRespSequenceNo; // nSequenceNo of the request that it answers
    union
    {
        int32_t s_nResult;       // MIRSP_STATUS
        int32_t s_nConnectID;    // MIRSP_CONNECT
        int32_t s_nFileID;       // MIRSP_OPENFILE
        int32_t s_nStreamID;     // MIRSP_OPENSTREAM
        int32_t s_nTimeMs;       // MIRSP_RECORDGETTIME
        int32_t s_nRecordStatus; // MIRSP_RECORDGETSTATUS
    };
    unsigned char abReserved[36]; // not read by clients
};

// An event: driver to client, or a client to itself.
struct structMIEVT
{
    MIEVT s_mievt;
    int32_t nStreamID;
    uint32_t nSequenceID; // nSequenceNo of the finished command
    int32_t s_mcstatus;   // completion status
};

static_assert(sizeof(structMICMD) == 280, "request record");
static_assert(offsetof(structMICMD, s_micmd) == 0, "");
static_assert(offsetof(structMICMD, nConnectID) == 4, "");
static_assert(offsetof(structMICMD, nSequenceNo) == 8, "");
static_assert(offsetof(structMICMD, abBody) == 12, "");
static_assert(offsetof(structMICMD, connect.szRspPipe) == 12, "");
static_assert(offsetof(structMICMD, connect.szEvtPipe) == 44, "");
static_assert(offsetof(structMICMD, openFile.szFileName) == 12, "");
static_assert(offsetof(structMICMD, closeFile.nFileID) == 12, "");
static_assert(offsetof(structMICMD, openStream.szCallID) == 12, "");
static_assert(offsetof(structMICMD, openStream.nLegID) == 44, "");
static_assert(offsetof(structMICMD, stream.nStreamID) == 12, "");
static_assert(offsetof(structMICMD, playClip.nStreamID) == 12, "");
static_assert(offsetof(structMICMD, playClip.nFileID) == 16, "");
static_assert(offsetof(structMICMD, playClip.nOffset) == 20, "");
static_assert(offsetof(structMICMD, playClip.nLength) == 24, "");
static_assert(offsetof(structMICMD, playClip.nPlayParam) == 28, "");
static_assert(offsetof(structMICMD, playFile.nStreamID) == 12, "");
static_assert(offsetof(structMICMD, playFile.szFileName) == 16, "");
static_assert(offsetof(structMICMD, playFile.nStartPos) == 272, "");
static_assert(offsetof(structMICMD, playFile.nPlayParam) == 276, "");
static_assert(offsetof(structMICMD, recordFile.nStreamID) == 12, "");
static_assert(offsetof(structMICMD, recordFile.szFileName) == 16, "");
static_assert(offsetof(structMICMD, recordFile.nMaxSamples) == 272, "");
static_assert(offsetof(structMICMD, cancel.nStreamID) == 12, "");
static_assert(offsetof(structMICMD, cancel.nCancelType) == 16, "");

static_assert(sizeof(structMIRSP) == 48, "response record");
static_assert(offsetof(structMIRSP, s_mirsp) == 0, "");
static_assert(offsetof(structMIRSP, nRespSequenceNo) == 4, "");
static_assert(offsetof(structMIRSP, s_nResult) == 8, "");
static_assert(offsetof(structMIRSP, abReserved) == 12, "");

static_assert(sizeof(structMIEVT) == 16, "event record");
static_assert(offsetof(structMIEVT, s_mievt) == 0, "");
static_assert(offsetof(structMIEVT, nStreamID) == 4, "");
static_assert(offsetof(structMIEVT, nSequenceID) == 8, "");
static_assert(offsetof(structMIEVT, s_mcstatus) == 12, "");

// Several processes write into the request pipe: their records must never interleave.
static_assert(sizeof(structMICMD) <= PIPE_BUF, "a record fits into one atomic write");

// Which member of structMICMD's union a command fills.
enum MICMD_BODY
{
    MIBODY_NONE,
    MIBODY_CONNECT,
    MIBODY_OPENFILE,
    MIBODY_CLOSEFILE,
    MIBODY_OPENSTREAM,
    MIBODY_STREAM, // from here on the first field is nStreamID
    MIBODY_PLAYCLIP,
    MIBODY_PLAYFILE,
    MIBODY_RECORDFILE,
    MIBODY_CANCEL
};

// What is known of a command. An active one ends with an event, an immediate one with its response.
struct CCommandInfo
{
    MICMD m_micmd;
    const char* m_pszName;      // in log lines
    const char* m_pszShortName; // in fault rules and statistics
    MICMD_BODY m_eBody;
    MIRSP m_mirsp; // of the response when it is done; a refusal is MIRSP_STATUS
    bool m_bActive;
};

// All commands by ascending number, which begins at 1 and has no gaps.
inline constexpr CCommandInfo aCommands[] = {
    {MICMD_CONNECT, "MICMD_CONNECT", "connect", MIBODY_CONNECT, MIRSP_CONNECT, false},
    {MICMD_DISCONNECT, "MICMD_DISCONNECT", "disconnect", MIBODY_NONE, MIRSP_STATUS, false},
    {MICMD_OPENFILE, "MICMD_OPENFILE", "openfile", MIBODY_OPENFILE, MIRSP_OPENFILE, false},
    {MICMD_CLOSEFILE, "MICMD_CLOSEFILE", "closefile", MIBODY_CLOSEFILE, MIRSP_STATUS, false},
    {MICMD_OPENSTREAM, "MICMD_OPENSTREAM", "openstream", MIBODY_OPENSTREAM, MIRSP_OPENSTREAM, false},
    {MICMD_CLOSESTREAM, "MICMD_CLOSESTREAM", "closestream", MIBODY_STREAM, MIRSP_STATUS, false},
    {MICMD_PLAYCLIP, "MICMD_PLAYCLIP", "playclip", MIBODY_PLAYCLIP, MIRSP_STATUS, true},
    {MICMD_PLAYFILE, "MICMD_PLAYFILE", "playfile", MIBODY_PLAYFILE, MIRSP_STATUS, true},
    {MICMD_RECORDFILE, "MICMD_RECORDFILE", "recordfile", MIBODY_RECORDFILE, MIRSP_STATUS, true},
    {MICMD_CANCEL, "MICMD_CANCEL", "cancel", MIBODY_CANCEL, MIRSP_STATUS, false},
    {MICMD_PLAYGETSTATS, "MICMD_PLAYGETSTATS", "playgetstats", MIBODY_STREAM, MIRSP_PLAYGETSTATS, false},
    {MICMD_RECORDGETSTATS, "MICMD_RECORDGETSTATS", "recordgetstats", MIBODY_STREAM, MIRSP_RECORDGETSTATS, false},
    {MICMD_PING, "MICMD_PING", "ping", MIBODY_NONE, MIRSP_STATUS, false},
    {MICMD_DUMP, "MICMD_DUMP", "dump", MIBODY_NONE, MIRSP_STATUS, false},
    {MICMD_RECORDGETTIME, "MICMD_RECORDGETTIME", "recordgettime", MIBODY_STREAM, MIRSP_RECORDGETTIME, false},
    {MICMD_RECORDGETSTATUS, "MICMD_RECORDGETSTATUS", "recordgetstatus", MIBODY_STREAM, MIRSP_RECORDGETSTATUS, false}};

inline constexpr int32_t COMMAND_COUNT = sizeof(aCommands) / sizeof(aCommands[0]);

constexpr bool commandsHaveNoGaps()
{
    for (int32_t n = 0; n < COMMAND_COUNT; ++n)
        if (aCommands[n].m_micmd != n + 1)
            return false;
    return true;
}
static_assert(commandsHaveNoGaps(), "commandInfo finds a command by its number");

// Null for a number that no command has.
constexpr const CCommandInfo* commandInfo(int32_t nCommand)
{
    return nCommand >= 1 && nCommand <= COMMAND_COUNT ? &aCommands[nCommand - 1] : nullptr;
}

// Null for what is no command's short name.
constexpr const CCommandInfo* commandInfo(std::string_view shortName)
{
    for (const CCommandInfo& info : aCommands)
        if (shortName == info.m_pszShortName)
            return &info;
    return nullptr;
}

// Whether the request is about one stream, and thereby about a call id.
constexpr bool namesStream(const CCommandInfo& info)
{
    return info.m_eBody >= MIBODY_OPENSTREAM;
}

// The name of a code as it stands in log lines; "MICMD unknown" and the like for anything else.
const char* MICMDToString(MICMD micmd);
const char* MIRSPToString(MIRSP mirsp);
const char* MIEVTToString(MIEVT mievt);

#endif
