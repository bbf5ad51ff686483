// What each command does: one request record in, one response record out.
#ifndef DRIVER_REQUEST_HANDLER_H
#define DRIVER_REQUEST_HANDLER_H

#include "Channel.h"
#include "ClientRegistry.h"
#include "ClipStore.h"
#include "MediaProtocol.h"

#include <string>

class CRequestHandler
{
public:
    CRequestHandler(CClientRegistry& registry, CClipStore& clipStore, CChannelFactory& channels,
                    CClientPortOpener& opener);

    // Carries out a request and answers it. What cannot be answered, because it comes from no known
    // client, is logged and dropped. Any content is acceptable; nothing is thrown for it.
    void Handle(const structMICMD& cmd);

private:
    // Fills the response, which is an empty MIRSP_STATUS of success. False refuses the command; the
    // reason is then in strError.
    using CommandFunction = bool (CRequestHandler::*)(CClient& client, const structMICMD& cmd, structMIRSP& rsp,
                                                      std::string& strError);
    struct CCommandEntry
    {
        MICMD m_micmd;
        const char* m_pName;
        CommandFunction m_pFunction;
    };
    static const CCommandEntry COMMANDS[];

    static const CCommandEntry* FindCommand(MICMD micmd);

    bool Execute(const CCommandEntry& entry, CClient& client, const structMICMD& cmd, structMIRSP& rsp,
                 std::string& strError);
    void Connect(const structMICMD& cmd);
    void Answer(CClient& client, const structMIRSP& rsp);

    bool Disconnect(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool OpenFile(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool CloseFile(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool OpenStream(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool CloseStream(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool PlayClip(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool PlayFile(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool RecordFile(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool Cancel(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool GetStats(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool Ping(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool Dump(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool RecordGetTime(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);
    bool RecordGetStatus(CClient& client, const structMICMD& cmd, structMIRSP& rsp, std::string& strError);

    CClientRegistry& m_registry;
    CClipStore& m_clipStore;
    CChannelFactory& m_channels;
    CClientPortOpener& m_opener;
    int m_nNextFileID = 1;
    int m_nNextStreamID = 1;
};

#endif
