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
    std::string handle(const std::string& strLine);

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

    static const CEntry* findRequest(const std::string& strName);

    bool execute(const std::string& strLine, nlohmann::ordered_json& answer, std::string& strError);

    bool clients(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool streams(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool stats(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool faults(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool fault(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool unfault(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool hangUp(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool drop(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool freeze(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool thaw(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool die(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool ping(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);
    bool help(const nlohmann::json& fields, nlohmann::ordered_json& answer, std::string& strError);

    CDriverControl& m_driver;
};

#endif
