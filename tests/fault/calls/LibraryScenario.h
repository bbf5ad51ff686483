// A scenario of an application with the library and a driver.
#ifndef LIBRARY_SCENARIO_H
#define LIBRARY_SCENARIO_H

#include "CallsLedger.h"
#include "FailingAllocations.h"
#include "Scenario.h"
#include "ScriptedDriver.h"
#include "ZelMediaServices.h"

#include <map>
#include <mutex>
#include <optional>

class CLibraryScenario : public CScenario
{
public:
    CLibraryScenario();
    ~CLibraryScenario() override;
    void check() override;
    void end() override;
    bool mayRemain(const std::string& strName) const override;

protected:
    static constexpr unsigned long LONG = 3000; // seconds

    void start();                     // the services object, unless there is no memory for it
    CZelMediaStream* connect();       // waits for a connection; a stream, or null
    CZelMediaStream* open();          // a stream, or null
    CZelMediaStream* startedStream(); // with a driver, for prepare
    void close(CZelMediaStream*& pStream);
    void stop(); // the library

    // Commands on a stream; nothing when it is null. Without faults the status must be nExpected.
    void play(CZelMediaStream* pStream, unsigned long ulTimeout = LONG, int nFlag = 0, int nExpected = MCS_OK);
    void playPhrase(CZelMediaStream* pStream, unsigned long ulFileID);
    void record(CZelMediaStream* pStream, unsigned long ulTimeout = LONG);
    void recordWithPrompt(CZelMediaStream* pStream, unsigned long ulFileID);
    unsigned long openPhraseFile(const char* pszFile, int nExpected = MCS_OK);
    template <class OPERATION> static int inside(OPERATION operation)
    {
        const CInsideLibrary inside;
        return operation();
    }
    // Calls the library; without faults the status must be nExpected.
    template <class OPERATION> int call(const char* pszOperation, OPERATION operation, int nExpected = MCS_OK) const
    {
        return expect(pszOperation, inside(operation), nExpected);
    }
    int dump(int nExpected = MCS_OK);
    int expect(const char* pszOperation, int nStatus, int nExpected = MCS_OK) const;

    // Whether plays and records end at once, or when they are released.
    void hold();
    void release();
    void forgetHeld();
    bool waitCompletions(size_t nCount);

    CLedger m_ledger;
    CScriptedDriver m_driver;
    std::optional<CZelMediaServices> m_services;
    bool m_bLateAnswers = false; // wait in the response pipe now and then

private:
    int tryOpen(CZelMediaStream*& pStream, const char* pszCallID);
    void accept(const structMICMD& request);
    void cancelled(const structMICMD& request);
    template <class OPERATION> void command(CZelMediaStream* pStream,
                                            CZelMediaStreamCompletionHandler::MCCOMPLETION_REASON reason,
                                            const char* pszOperation, int nExpected, OPERATION operation);
    bool playCompletes(CZelMediaStream*& pStream);
    bool isCutOff();
    void checkDescriptors() const;

    bool m_bHitStart = false; // a call of the constructor failed
    std::vector<CZelMediaStream*> m_vStreams;
    std::vector<unsigned long> m_vFiles; // closed ones may be among them
    std::mutex m_mutex;
    bool m_bHold = false;
    bool m_bQuiet = false;                                 // only the play that shows that it works again is finished
    std::map<std::pair<int, bool>, structMICMD> m_mapHeld; // by stream, and whether it records
};

#endif
