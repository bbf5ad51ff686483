// Compiled as each C++ from 11 to 20, never run: what an application's compiler makes of a public header.
//
// PUBLIC_HEADER is the header. It must stand alone and may be included twice.
#include PUBLIC_HEADER
#include PUBLIC_HEADER

#ifdef ZEL_MEDIA_SERVICES_H

// An application's handler, and every operation with exactly the types that it has.
class CHandler : public CZelMediaStreamCompletionHandler
{
public:
    void OnMediaStreamCompletion(CZelMediaStream*, MCSTATUS, MCCOMPLETION_REASON) override {}
};

typedef unsigned long UL;
typedef CZelMediaServices SV;
typedef CZelMediaStream ST;

static_assert(sizeof(SV) == sizeof(void*), "one pointer");
static_assert(sizeof(ST) == sizeof(void*), "one pointer");
static_assert(sizeof(CHandler) == sizeof(void*), "the dispatch table and nothing else");
static_assert(sizeof(MCSTATUS) == sizeof(int) && MCSTATUS(-1) < 0, "an int");

int (SV::*g_openDevice)(std::string, std::string, ST**) = &SV::openMediaStream;
int (SV::*g_openCall)(ST**, std::string, UL) = &SV::openMediaStream;
void (SV::*g_close)(ST*) = &SV::closeMediaStream;
int (SV::*g_openPhrase)(char*, UL*) = &SV::openPhraseFile;
int (SV::*g_closePhrase)(UL) = &SV::closePhraseFile;
int (SV::*g_silence)(unsigned short) = &SV::setMinimumSilenceDuration;
void (SV::*g_logger)(OrvLogLib::CLogFile*, OrvLogLib::CLogFileRegistry*) = &SV::setLogger;
int (SV::*g_dump)() = &SV::dump;

int (ST::*g_initDevice)(CZelMediaServicesImpl*, std::string, std::string) = &ST::initialize;
int (ST::*g_initCall)(CZelMediaServicesImpl*, std::string, UL) = &ST::initialize;
int (ST::*g_playFile)(char*, UL, UL, int, int, UL) = &ST::playAddFile;
int (ST::*g_playPhrase)(UL, UL, UL, UL, int, UL) = &ST::playAddPhrase;
int (ST::*g_playBuffer)(unsigned char*, UL, UL, int, UL) = &ST::playAddBuffer;
int (ST::*g_playCancel)() = &ST::playCancel;
int (ST::*g_playReset)() = &ST::playResetBuffers;
int (ST::*g_playSeconds)(UL*) = &ST::playGetSeconds;
int (ST::*g_playMs)(UL*) = &ST::playGetMilliSeconds;
int (ST::*g_playSetCancelled)(int) = &ST::playSetCancelled;
int (ST::*g_playGetCancelled)(int*) = &ST::playGetCancelled;
int (ST::*g_playInfo)(_CHANNEL_PLAY_DATA*) = &ST::playGetInfo;
int (ST::*g_record)(char*, int, UL, UL, int) = &ST::recordToFile;
int (ST::*g_recordPrompt)(UL, UL, UL, char*, int, UL, UL, int) = &ST::recordToFileWithPromptPhrase;
int (ST::*g_recordBuffer)(unsigned char*, UL, UL, int) = &ST::recordToBuffer;
int (ST::*g_recordBufferPrompt)(UL, UL, UL, unsigned char*, UL, UL, int) = &ST::recordToBufferWithPromptPhrase;
int (ST::*g_recordCancel)() = &ST::recordCancel;
int (ST::*g_recordStatus)() = &ST::recordGetStatus;
int (ST::*g_recordTime)(UL*) = &ST::recordGetTimeMilliseconds;
int (ST::*g_recordInfo)(_CHANNEL_RECORD_DATA*) = &ST::recordGetInfo;
int (ST::*g_recordSilence)(unsigned short, unsigned char, UL) = &ST::recordSetSilenceParameters;

const char* use(CHandler& handler)
{
    CZelMediaServices services(&handler);
    return MCSTATUSToString(services.setMinimumSilenceDuration(1));
}

#endif

#ifdef ORV_LOG_LIB_H

class CAppLog : public OrvLogLib::CLogFile
{
public:
    CAppLog() : CLogFile("app", nullptr, false, false, false) {}
    int LogStringArgListX(OrvLogLib::LogLib_Priority, const char*, const char*, va_list) override { return 0; }
    long ReportEventToWIN32Log(long, unsigned short, unsigned long, const char**, void*) override { return 0; }
};

int use(CAppLog& log)
{
    return log.TraceString(1, OrvLogLib::LogLib_Normal, "%d", 5);
}

#endif

#ifdef ORV_EXCEPTION_H

unsigned int use(const OrvException& exception)
{
    return *exception.location() ? exception.code() : static_cast<unsigned int>(OrvException::OUT_OF_MEMORY);
}

#endif
