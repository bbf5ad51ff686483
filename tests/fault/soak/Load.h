// Work for the soak: calls on the library that are the same each time, on a services object of its own.
#ifndef LOAD_H
#define LOAD_H

#include "ZelMediaServices.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

class CLoad : public CZelMediaStreamCompletionHandler
{
public:
    static constexpr int PHRASE_FILES = 10;
    static constexpr const char* ANOTHER_FILE = "/tmp/another.ul"; // that the loads do not use

    // Makes the files that there are to play.
    static void makeFiles();

    // strName: of the calls and recordings, different from those of other loads.
    CLoad(const std::string& strName, const std::vector<unsigned long>& vPhrases);

    // Calls until nToDo, which all loads share, is used up: opens a stream, asks, plays, queues, cancels,
    // records, uses phrases, closes. False when something did not go as it must.
    bool callUntilDone(std::atomic<long>& nToDo);

    // How many of the phrase files can be played, once the driver has them again.
    int playEachPhrase();

    // Leaves a stream idle, and one playing and recording, with queues; closeAbandoned closes them.
    bool abandon();
    void closeAbandoned();

    void OnMediaStreamCompletion(CZelMediaStream*, MCSTATUS, MCCOMPLETION_REASON) override;

private:
    bool call();
    bool ask(CZelMediaStream* pStream);
    bool playAndCancel(CZelMediaStream* pStream);
    bool recordWithPrompt(CZelMediaStream* pStream);
    bool usePhraseFile();
    CZelMediaStream* open();
    bool play(CZelMediaStream* pStream, const char* pszFile);
    bool record(CZelMediaStream* pStream);
    bool waitCompletions(long nCount);
    bool did(MCSTATUS mcstatus); // counts a command; whether it went well

    const std::string m_strName;
    std::string m_strRecordFile;
    const std::vector<unsigned long>& m_vPhrases;
    CZelMediaServices m_services{this};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    long m_nCompletions = 0;
    long m_nExpected = 0;
    long m_nDone = 0;
    int m_nCalls = 0;
    CZelMediaStream* m_pAbandoned = nullptr;
    CZelMediaStream* m_pIdle = nullptr;
};

#endif
