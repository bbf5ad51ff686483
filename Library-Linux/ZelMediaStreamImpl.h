// CZelMediaStreamImpl: behind the public CZelMediaStream; composes the requests of one stream.
#ifndef ZEL_MEDIA_STREAM_IMPL_H
#define ZEL_MEDIA_STREAM_IMPL_H

#include "MediaProtocol.h"
#include "ZelMediaServices.h"

#include <cstdint>
#include <string>

class CZelMediaServicesImpl;

// See CZelMediaStream for the operations. None takes a lock: calls on one stream come from one
// thread at a time, and what the event thread writes here is advisory for the others.
class CZelMediaStreamImpl
{
public:
    CZelMediaStreamImpl();
    // Unregisters the stream and closes it at the driver, if it has a driver stream.
    virtual ~CZelMediaStreamImpl();
    CZelMediaStreamImpl(const CZelMediaStreamImpl&) = delete;
    CZelMediaStreamImpl& operator=(const CZelMediaStreamImpl&) = delete;

    // Open the driver stream and register it. The status of the driver request.
    int initialize(CZelMediaServicesImpl* pServices, CZelMediaStream* pStream, std::string strInDev,
                   std::string strOutDev);
    int initialize(CZelMediaServicesImpl* pServices, CZelMediaStream* pStream, std::string strCallID,
                   unsigned long ulLegID);

    int playAddFile(char* pszFile, unsigned long ulStartPos, unsigned long ulTimeout, int nFlag, int nStartPosInMs,
                    unsigned long ulPlayParam);
    int playAddPhrase(unsigned long ulFileID, unsigned long ulOffset, unsigned long ulLength, unsigned long ulTimeout,
                      int nFlag, unsigned long ulPlayParam);
    int playAddBuffer(unsigned char* pBuffer, unsigned long ulSize, unsigned long ulTimeout, int nFlag,
                      unsigned long ulPlayParam);
    int playCancel();
    int playResetBuffers();
    int playGetSeconds(unsigned long* pulSeconds);
    int playGetMilliSeconds(unsigned long* pulMilliSeconds);
    int playSetCancelled(int nCancelled);
    int playGetCancelled(int* pnCancelled);
    int playGetInfo(_CHANNEL_PLAY_DATA* pInfo);

    int recordToFile(char* pszFileName, int nRlen, unsigned long ulMaxSeconds, unsigned long ulTimeout, int nFlag);
    int recordToFileWithPromptPhrase(unsigned long ulFileID, unsigned long ulOffset, unsigned long ulLength,
                                     char* pszFileName, int nRlen, unsigned long ulMaxSeconds, unsigned long ulTimeout,
                                     int nFlag);
    int recordToBuffer(unsigned char* pBuffer, unsigned long ulSize, unsigned long ulTimeout, int nFlag);
    int recordToBufferWithPromptPhrase(unsigned long ulFileID, unsigned long ulOffset, unsigned long ulLength,
                                       unsigned char* pBuffer, unsigned long ulSize, unsigned long ulTimeout,
                                       int nFlag);
    int recordCancel();
    int recordGetStatus();
    int recordGetTimeMilliseconds(unsigned long* pulMilliSeconds);
    int recordGetInfo(_CHANNEL_RECORD_DATA* pInfo);
    int recordSetSilenceParameters(unsigned short usLimitMs, unsigned char ucUlawLimit, unsigned long ulLimitMs);

    // Event thread: the play that was timed has ended; the stream was lost with the pipes.
    void freezePlayTime(uint64_t ullNow);
    void invalidate();

    CZelMediaServicesImpl* m_pServices;
    CZelMediaStream* m_pStream;  // owns this object
    int m_nStreamID;             // the driver's id, -1 for none
    int m_bInitialized;          // cleared by invalidate(), shown by a dump from any thread
    int m_bPlayCancelled;        // the application's, shown likewise
    uint64_t m_ullPlayStartTick; // 0 while no play is timed
    uint64_t m_ullPlayElapsed;   // ms, 0 until a first play has completed

private:
    bool m_bOpened = false; // at the driver, which may have given a negative id

    int openAndRegister(CZelMediaServicesImpl* pServices, CZelMediaStream* pStream, std::string& strCallID,
                        unsigned long ulLegID);
    structMICMD request(MICMD micmd) const;
    int sendPlay(structMICMD& cmd, unsigned long ulTimeout, int nFlag);
    int sendRecord(structMICMD& cmd, const char* pszFileName, unsigned long ulMaxSeconds, unsigned long ulTimeout,
                   int nFlag, int bUsePlayQueue);
    uint64_t playedMilliSeconds() const;
};

#endif
