// The public interface of libZelMediaLib: play prompts and record speech on call channels.
//
// Include this one header and link ZelMediaLib (and OrvLogLib, for a log file of your own).
//
//   class CPrinter : public CZelMediaStreamCompletionHandler { ... OnMediaStreamCompletion ... };
//
//   CPrinter printer;
//   CZelMediaServices services(&printer);
//   CZelMediaStream* pStream = nullptr;
//   if (services.openMediaStream(&pStream, "call-17", 1) == MCS_OK)
//   {
//       char szFile[] = "/var/lib/prompts/hello.wav";
//       pStream->playAddFile(szFile, 0, 60, 0, 0, 0);
//       ...                                 // wait for OnMediaStreamCompletion
//       services.closeMediaStream(pStream);
//   }
//
// Every operation returns a status, 0 (MCS_OK) for success. Only the constructors throw. A null
// text argument counts as empty text. A process may use the interface after fork() only in the
// parent: the pipes to the media driver carry the parent's process id.
#ifndef ZEL_MEDIA_SERVICES_H
#define ZEL_MEDIA_SERVICES_H

#include <string>

// Marks what libZelMediaLib exports.
#define ZELMEDIA_API __attribute__((visibility("default")))

namespace OrvLogLib
{
class CLogFile;
class CLogFileRegistry;
} // namespace OrvLogLib

class CZelMediaServicesImpl;
class CZelMediaStreamImpl;

// Records of the application's own; the library passes them on and never looks inside.
struct _CHANNEL_PLAY_DATA;
struct _CHANNEL_RECORD_DATA;

// The status of an operation or of a completion: one of the values below, or a value of the media
// driver's own, passed on untouched.
typedef int MCSTATUS;

enum : MCSTATUS
{
    MCS_OK = 0,
    MCS_INVALIDHANDLE = 2,      // a null out-pointer was given
    MCS_CANCELLED = 3,          // a play ended early; its elapsed time counts all the same
    MCS_OUTOFMEMORY = 4,        // no memory for a command or a stream
    MCS_THREADFAILED = 6,       // the event thread could not be started
    MCS_LOCKFAILED = 8,         // the locks could not be created
    MCS_NORESPONSE = 16,        // the driver did not answer this request in time
    MCS_REFUSED = 34,           // the driver refused the command
    MCS_UNKNOWNPHRASEFILE = 41, // no such phrase file id, or the driver has not got the file open
    MCS_PIPECREATE = 42,        // the response or event pipe could not be created
    MCS_PIPEOPEN = 43,          // the response or event pipe could not be opened
    MCS_PIPEREAD = 44,          // reading the response pipe failed: the driver is gone
    MCS_PIPEWRITE = 45,         // writing the request failed: the driver is gone, or its pipe is full
    MCS_TIMEDOUT = 46,          // a play or record passed its time-out and was cancelled
    MCS_NOTCONNECTED = 47,      // the media driver is not running or not connected
    MCS_NOTINITIALIZED = 48,    // the stream has no driver stream, or was lost with the pipes
    MCS_NOTSUPPORTED = 49       // buffer play and buffer record
};

// The time-out argument that stands for the default of 300 seconds.
static const unsigned long ZELMEDIA_DEFAULT_TIMEOUT = 0xFFFFFFFFUL;

// The name of a status, for messages: "MCS_NORESPONSE"; "MCSTATUS unknown" for the driver's own.
inline const char* MCSTATUSToString(MCSTATUS mcstatus)
{
    switch (mcstatus)
    {
    case MCS_OK: return "MCS_OK";
    case MCS_INVALIDHANDLE: return "MCS_INVALIDHANDLE";
    case MCS_CANCELLED: return "MCS_CANCELLED";
    case MCS_OUTOFMEMORY: return "MCS_OUTOFMEMORY";
    case MCS_THREADFAILED: return "MCS_THREADFAILED";
    case MCS_LOCKFAILED: return "MCS_LOCKFAILED";
    case MCS_NORESPONSE: return "MCS_NORESPONSE";
    case MCS_REFUSED: return "MCS_REFUSED";
    case MCS_UNKNOWNPHRASEFILE: return "MCS_UNKNOWNPHRASEFILE";
    case MCS_PIPECREATE: return "MCS_PIPECREATE";
    case MCS_PIPEOPEN: return "MCS_PIPEOPEN";
    case MCS_PIPEREAD: return "MCS_PIPEREAD";
    case MCS_PIPEWRITE: return "MCS_PIPEWRITE";
    case MCS_TIMEDOUT: return "MCS_TIMEDOUT";
    case MCS_NOTCONNECTED: return "MCS_NOTCONNECTED";
    case MCS_NOTINITIALIZED: return "MCS_NOTINITIALIZED";
    case MCS_NOTSUPPORTED: return "MCS_NOTSUPPORTED";
    default: return "MCSTATUS unknown";
    }
}

class CZelMediaStream;

// Implemented by the application: learns of every finished play and record.
class ZELMEDIA_API CZelMediaStreamCompletionHandler
{
public:
    // What has ended.
    enum MCCOMPLETION_REASON
    {
        MCCR_OTHER = 0, // neither of these
        MCCR_PLAY = 1,  // a play
        MCCR_RECORD = 2 // a recording
    };

    CZelMediaStreamCompletionHandler();
    virtual ~CZelMediaStreamCompletionHandler();

    // A play or record of pStream ended with this status.
    //
    // Called on the library's one event thread, with no library lock held: the handler may call
    // back into the library, to play the next file or to close the stream. While it runs no other
    // completion is delivered and nothing is timed out, so it must return promptly. It must not
    // throw: an exception ends the event thread.
    //
    // After MCS_TIMEDOUT the driver's own event for the end that it was asked for is still to come. It
    // drops, without completions, what is queued on the stream by then. So play one file or phrase at a
    // time, with nFlag 0, until a completion has come with another status; or close the stream.
    virtual void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) = 0;
};

// One open channel of a call. Made by CZelMediaServices::openMediaStream, destroyed by
// CZelMediaServices::closeMediaStream, by nobody else.
//
// Calls on one stream come from one thread at a time; different streams are independent. Besides
// what is said below, every operation returns MCS_NOTINITIALIZED on a stream that could not be
// opened or was lost with the pipes, and operations that ask the driver return
//   MCS_OUTOFMEMORY, MCS_NORESPONSE, MCS_REFUSED, MCS_PIPEREAD, MCS_PIPEWRITE, MCS_NOTCONNECTED.
// A call that asks the driver blocks until the driver has answered, 10 s at most after its turn.
//
// Time-outs are in seconds, counted from the moment the play or record is sent to the driver;
// ZELMEDIA_DEFAULT_TIMEOUT (or -1) means 300 s, and 0 means at once. The product in milliseconds
// is formed in 32 bits, so values above 4294967 s wrap.
class ZELMEDIA_API CZelMediaStream
{
public:
    // Throws int 0 when out of memory. Not for applications: see CZelMediaServices::openMediaStream.
    CZelMediaStream();
    ~CZelMediaStream();
    CZelMediaStream(const CZelMediaStream&) = delete;
    CZelMediaStream& operator=(const CZelMediaStream&) = delete;

    // Not for applications: CZelMediaServices::openMediaStream calls these.
    int initialize(CZelMediaServicesImpl* pServices, std::string strInDev, std::string strOutDev);

    // The same for the leg of a call. Not for applications either.
    int initialize(CZelMediaServicesImpl* pServices, std::string strCallID, unsigned long ulLegID);

    // Plays a file, or queues it behind what this stream is playing.
    //
    // pszFile      path as the driver sees it; only its first 255 characters travel
    // ulStartPos   where to start: milliseconds when nStartPosInMs is non-zero, else seconds
    // ulTimeout    seconds, see above
    // nFlag        0: report the end of this play whatever it is; non-zero: an ordinary step,
    //              reported only when it ends with a status other than 0
    // ulPlayParam  handed to the driver unchanged
    //
    // Returns MCS_OK when the driver has accepted the play or when it waits in the queue.
    int playAddFile(char* pszFile, unsigned long ulStartPos, unsigned long ulTimeout, int nFlag, int nStartPosInMs,
                    unsigned long ulPlayParam);

    // Plays a part of an open phrase file, or queues it. ulFileID is the id that openPhraseFile gave;
    // ulOffset and ulLength go to the driver unchanged, whose units they are: samples (8000/s) for the
    // reference driver. MCS_UNKNOWNPHRASEFILE: no such id, or the driver has not got that file open;
    // nothing was sent. Otherwise as playAddFile.
    int playAddPhrase(unsigned long ulFileID, unsigned long ulOffset, unsigned long ulLength, unsigned long ulTimeout,
                      int nFlag, unsigned long ulPlayParam);

    // Not supported: always MCS_NOTSUPPORTED.
    int playAddBuffer(unsigned char* pBuffer, unsigned long ulSize, unsigned long ulTimeout, int nFlag,
                      unsigned long ulPlayParam);

    // Drops every queued play of the stream, without completions, and asks the driver to end the
    // running one, which is then reported by its completion. MCS_OK also when nothing plays.
    int playCancel();

    // Nothing to reset: MCS_OK.
    int playResetBuffers();

    // The time played, in seconds rounded up, exact multiples included: 0 ms gives 1, 1000 ms
    // gives 2. Of which play: see playGetMilliSeconds.
    int playGetSeconds(unsigned long* pulSeconds);

    // The time played, in milliseconds: of the running play until a first play of this stream has
    // completed, afterwards always of the play that completed last.
    int playGetMilliSeconds(unsigned long* pulMilliSeconds);

    // Sets a flag for the application's own use; the library never acts on it.
    int playSetCancelled(int nCancelled);

    // What playSetCancelled set last; 0 before.
    int playGetCancelled(int* pnCancelled);

    // Tells only whether the stream is usable; *pInfo is neither read nor written.
    int playGetInfo(_CHANNEL_PLAY_DATA* pInfo);

    // Records the channel into a file. A second recording waits behind the running one; it is dropped
    // without a completion when that one ends with a status other than 0.
    //
    // pszFileName   path as the driver sees it; only its first 255 characters travel
    // nRlen         appears in the log and has no other effect
    // ulMaxSeconds  the driver ends the recording after this many seconds
    // ulTimeout     seconds, see above
    // nFlag         of no effect: the end of a recording is always reported
    //
    // The completion of a plain recording is not matched with the driver's event: it is reported
    // when the time-out passes, with MCS_TIMEDOUT. Give it a time-out just above ulMaxSeconds, or
    // use recordToFileWithPromptPhrase, whose end is reported when it happens.
    int recordToFile(char* pszFileName, int nRlen, unsigned long ulMaxSeconds, unsigned long ulTimeout, int nFlag);

    // Plays a phrase as playAddPhrase does, then records as recordToFile does. The phrase and the
    // recording have ulTimeout each. The end of the recording is reported when it happens. So is that of
    // the phrase: with a non-zero nFlag it goes unreported only where it ends well before this returns.
    // When the recording is refused the phrase plays on.
    int recordToFileWithPromptPhrase(unsigned long ulFileID, unsigned long ulOffset, unsigned long ulLength,
                                     char* pszFileName, int nRlen, unsigned long ulMaxSeconds, unsigned long ulTimeout,
                                     int nFlag);

    // Not supported: always MCS_NOTSUPPORTED.
    int recordToBuffer(unsigned char* pBuffer, unsigned long ulSize, unsigned long ulTimeout, int nFlag);

    // Not supported: always MCS_NOTSUPPORTED.
    int recordToBufferWithPromptPhrase(unsigned long ulFileID, unsigned long ulOffset, unsigned long ulLength,
                                       unsigned char* pBuffer, unsigned long ulSize, unsigned long ulTimeout,
                                       int nFlag);

    // Asks the driver to end a recording that runs behind a prompt, and drops what is queued on
    // the play side. A plain recording is left alone while nothing plays: MCS_OK, nothing sent.
    int recordCancel();

    // The driver's record status; or, when the query failed, the status of the failure.
    int recordGetStatus();

    // The time recorded so far, in milliseconds; 0 when the query failed.
    int recordGetTimeMilliseconds(unsigned long* pulMilliSeconds);

    // Tells only whether the stream is usable; *pInfo is neither read nor written.
    int recordGetInfo(_CHANNEL_RECORD_DATA* pInfo);

    // Without effect: MCS_OK.
    int recordSetSilenceParameters(unsigned short usLimitMs, unsigned char ucUlawLimit, unsigned long ulLimitMs);

private:
    CZelMediaStreamImpl* m_pImpl;
};

// The entry into the library, one per component of the application.
//
// The first one of a process creates the connection to the media driver, which then lives until
// the process ends; construct it before a second thread constructs another one. Any thread may
// call any operation.
class ZELMEDIA_API CZelMediaServices
{
public:
    // pHandler is not owned, must outlive this object, and may be null: then nothing is reported.
    // Throws OrvException (OrvException.h) or int 0 when out of memory.
    explicit CZelMediaServices(CZelMediaStreamCompletionHandler* pHandler);

    // Does not close streams: close every stream of this object before.
    ~CZelMediaServices();
    CZelMediaServices(const CZelMediaServices&) = delete;
    CZelMediaServices& operator=(const CZelMediaServices&) = delete;

    // Opens the channel of the device strInDev; strOutDev only appears in the log.
    //
    // On success *ppStream is the stream, owned by the caller until closeMediaStream. On failure
    // *ppStream is null and the status says why: MCS_NOTCONNECTED, MCS_REFUSED, MCS_NORESPONSE,
    // MCS_PIPEREAD, MCS_PIPEWRITE, MCS_OUTOFMEMORY, MCS_INVALIDHANDLE (ppStream is null). After
    // MCS_OUTOFMEMORY *ppStream may be a stream without a channel, which the caller has to close.
    int openMediaStream(std::string strInDev, std::string strOutDev, CZelMediaStream** ppStream);

    // Opens the channel of leg ulLegID of the call strCallID, of which 31 characters travel.
    // Statuses and *ppStream as above.
    int openMediaStream(CZelMediaStream** ppStream, std::string strCallID, unsigned long ulLegID);

    // Drops everything the stream has queued or running, without completions, and destroys it.
    // Does nothing for null. May be called from the stream's own completion; otherwise not while a
    // completion for it may still be delivered.
    void closeMediaStream(CZelMediaStream* pStream);

    // Opens a phrase (clip) file; the same name opened again gives the same id. *pulFileID stays
    // valid across restarts of the driver until closePhraseFile was called as often as
    // openPhraseFile. The id is issued also with MCS_REFUSED, MCS_NOTCONNECTED and the other driver
    // statuses: the file is then opened when the driver next connects. *pulFileID is 0xFFFFFFFF
    // only when out of memory.
    int openPhraseFile(char* pszFileName, unsigned long* pulFileID);

    // Ends one use of a phrase file. MCS_OK also for an id that is not known. A phrase that is
    // still playing or queued is not looked for.
    int closePhraseFile(unsigned long ulFileID);

    // Without effect: MCS_OK.
    int setMinimumSilenceDuration(unsigned short usMs);

    // Replaces the log of the whole process; a null argument leaves what is there. The library owns
    // what it is given and deletes what it replaces, once no thread is writing a line into it. Must
    // not be called from within an operation of the log file that it replaces.
    void setLogger(OrvLogLib::CLogFile* pLogFile, OrvLogLib::CLogFileRegistry* pLogFileRegistry);

    // Writes the state of the library into its log and asks the driver to do the same. Returns the
    // status of that request.
    int dump();

private:
    CZelMediaServicesImpl* m_pImpl;
};

#endif
