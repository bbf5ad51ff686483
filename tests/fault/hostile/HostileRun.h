// CHostileRun: a library and a model of it, through operations of an application under hostile bytes.
#ifndef HOSTILE_RUN_H
#define HOSTILE_RUN_H

#include "HostileLibrary.h"

class CHostileRun
{
public:
    enum Kind
    {
        Request,     // pings and queries
        Start,       // plays and recordings
        Events,      // the driver writes some, and the event thread reads them
        Responses,   // the driver writes some that nobody waits for
        Cancel,      //
        SetDone,     //
        OpenStream,  //
        CloseStream, //
        OpenFile,    //
        CloseFile,   //
        Idle,        // time goes by
        Driver       // it goes, or comes back
    };

    CHostileRun(CChoices& choices, uint32_t nFirstSequenceNo);

    // False when library and model differ: see fault().
    bool step(Kind kind);
    // The driver becomes honest and the pipes are emptied: everything works again.
    bool recover();

    const std::string& fault() const { return m_library.fault(); }
    uint64_t records() const { return m_driver.records(); }
    // How often which status was returned.
    const std::map<int, uint64_t>& statuses() const { return m_mapStatuses; }

private:
    void request();
    void start();
    void events();
    void responses();
    void cancel();
    void setDone();
    void openStream();
    void closeStream();
    void openFile();
    void closeFile();
    void idle();
    void driver();
    void reconnect();
    void destroyObject(int nObject);
    int object();
    int stream();
    int freeHandler();
    void expectStatus(int nExpected, int nStatus, const char* pszWhat);
    int sendBoth(CHostileModel::CCommand command, bool bUsePlayQueue);

    CChoices& m_choices;
    CHostileDriver m_driver;
    CHostileModel m_model;
    CHostileLibrary m_library;
    std::vector<int> m_vFileIDs;
    std::map<int, uint64_t> m_mapStatuses;
};

#endif
