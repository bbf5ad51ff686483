// What each request on the control socket does: one line of JSON in, one out.
#ifndef DRIVER_CONTROL_REQUESTS_H
#define DRIVER_CONTROL_REQUESTS_H

#include "DriverControl.h"

#include <nlohmann/json.hpp>

#include <string>

class CFieldReader;

class CControlRequests
{
public:
    // The driver must outlive this.
    explicit CControlRequests(CDriverControl& driver);

    // Carries out {"request": NAME, ...} and returns {"ok": true, ...} or {"ok": false, "error": TEXT}.
    // Any text is acceptable; nothing is thrown for it, and what is refused has changed nothing.
    std::string Handle(const std::string& strLine);

private:
    // Adds to the answer. False refuses the request; the reason is then in strError.
    using RequestFunction = bool (CControlRequests::*)(const nlohmann::json& fields, nlohmann::ordered_json& answer,
                                                       std::string& strError);
    struct CEntry
    {
        const char* m_pName;
        const char* m_pFields;
        const char* m_pHelp;
        bool m_bChanges; // goes into the log
        RequestFunction m_pFunction;
    };
    static const CEntry REQUESTS[];

    static const CEntry* FindRequest(const std::string& strName);

    bool Execute(const std::string& strLine, nlohmann::ordered_json& answer, std::string& strError);

    bool Clients(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool Streams(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool Stats(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool Faults(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool Fault(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool Unfault(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool HangUp(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool Drop(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool Freeze(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool Thaw(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool Die(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool Ping(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool Help(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);

    CDriverControl& m_driver;
};

#endif
