// CZelMediaServicesImpl: behind the public CZelMediaServices; routes completions to its streams.
#ifndef ZEL_MEDIA_SERVICES_IMPL_H
#define ZEL_MEDIA_SERVICES_IMPL_H

#include "MIntf.h"
#include "ZelCritSec.h"
#include "ZelMediaServices.h"

#include <map>
#include <memory>

// All services objects of a process share one driver interface; each reports the completions of
// the streams that it opened.
class CZelMediaServicesImpl : public CMIntfCompletionHandler
{
public:
    // Creates the process's driver interface if there is none. Throws OrvException (out of memory).
    explicit CZelMediaServicesImpl(CZelMediaStreamCompletionHandler* pHandler);
    ~CZelMediaServicesImpl() override;
    CZelMediaServicesImpl(const CZelMediaServicesImpl&) = delete;
    CZelMediaServicesImpl& operator=(const CZelMediaServicesImpl&) = delete;

    // Event thread. Tells the application unless the stream is not registered here.
    void OnCMIntfCompletion(int nStreamID, MCSTATUS mcstatus,
                            CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON reason) override;

    // See CZelMediaServices for these.
    void setLogger(OrvLogLib::CLogFile* pLogFile, OrvLogLib::CLogFileRegistry* pLogFileRegistry);
    int setMinimumSilenceDuration(unsigned short usMs);
    int openPhraseFile(char* pszFileName, unsigned long* pulFileID);
    int closePhraseFile(unsigned long ulFileID);
    int dump();

    // Registers an open stream; a later one with the same id takes its place. Always 0.
    int addStream(CZelMediaStream* pStream, int nStreamID);
    // Unregisters a stream and closes it at the driver, registered or not. The driver's status.
    int remStream(int nStreamID);
    // Unregisters a stream that the driver knows nothing of, or under an id that it cannot be closed by.
    void forgetStream(int nStreamID);

private:
    ZelCritSec* m_pCritSec; // never held while calling out
    CZelMediaStreamCompletionHandler* m_pStreamHandler;
    std::map<int, CZelMediaStream*> m_mapStreamByID GUARDED_BY(m_pCritSec);
};

#endif
