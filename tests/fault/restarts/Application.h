// The application of the test: eight threads that open streams, play, queue, cancel, record, use phrases
// and close, as their random numbers say, and enter all of it into the ledger.
#ifndef APPLICATION_H
#define APPLICATION_H

#include "Gate.h"
#include "Ledger.h"

#include <atomic>
#include <random>
#include <thread>
#include <vector>

class CApplication : public CZelMediaStreamCompletionHandler
{
public:
    static const int THREADS = 8;
    static const int PHRASE_FILES = 3;

    // Files: what there is to play, in /tmp. The threads begin at the gate.
    CApplication(CLedger& ledger, unsigned int nSeed);
    // The threads must have ended.
    ~CApplication() override;

    void start();
    void finish(); // all threads are at the gate

    CGate& gate() { return m_gate; }
    CZelMediaServices& services() { return *m_pServices; }
    // Plays one phrase of each phrase file, on a stream of its own. False when one did not end well.
    bool phrasesPlay();
    // Episodes so far: one opens a stream, does something with it, and closes it.
    size_t episodes() const { return m_nEpisodes; }

    void OnMediaStreamCompletion(CZelMediaStream* pStream, MCSTATUS mcstatus, MCCOMPLETION_REASON reason) override;

private:
    struct CThread; // random numbers, number and stream of a thread
    using EOperation = CLedger::EOperation;

    void run(int nThread, unsigned int nSeed);
    void episode(CThread& thread);
    bool act(CThread& thread);
    void settle(CThread& thread);
    void close(CZelMediaStream* pStream);
    bool note(MCSTATUS mcstatus);

    // Each returns whether the stream can still be used.
    bool playChain(CThread& thread);
    bool playPhrase(CThread& thread);
    bool playLong(CThread& thread);
    bool record(CThread& thread);
    bool recordWithPrompt(CThread& thread);
    bool cancelRecordUnderPlay(CThread& thread);
    bool usePhraseFile(CThread& thread);
    bool query(CThread& thread);
    bool playFile(CThread& thread, const char* pszFile, bool bStep, int nTag);
    bool cancel(CThread& thread, bool bRecord);

    CLedger& m_ledger;
    const unsigned int m_nSeed;
    std::unique_ptr<CZelMediaServices> m_pServices;
    unsigned long m_aulPhrases[PHRASE_FILES];
    CGate m_gate{THREADS};
    std::vector<std::thread> m_vThreads;
    std::atomic<size_t> m_nEpisodes{0};
    std::atomic<int> m_nNextTag{1000};
    std::atomic<int> m_nPhrasesPlayed{0};
    std::atomic<CZelMediaStream*> m_pPhraseStream{nullptr};
};

#endif
