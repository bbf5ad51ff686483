// Rules by which the driver misbehaves on purpose, so that applications can be tested against it.
#ifndef DRIVER_FAULT_RULES_H
#define DRIVER_FAULT_RULES_H

#include "MediaProtocol.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class CFieldReader;

// What is to happen to a command and its answer.
struct CFaultAction
{
    bool m_bDie = false;                                  // at once, instead of carrying the command out
    bool m_bDropClient = false;                           // likewise: no answer
    bool m_bFreeze = false;                               // before the command is carried out
    std::optional<std::chrono::milliseconds> m_freezeFor; // nothing: until somebody ends it
    bool m_bRefuse = false;
    std::chrono::milliseconds m_delay = {}; // of the answer
    int m_nAnswers = 1;                     // 0: none; 2: the same answer twice
    bool m_bOldNumber = false;              // the answer carries the sequence number before that of the request
};

// What is to happen to the event of a play or recording that has ended.
struct CEventFault
{
    std::optional<int32_t> m_nStatus; // instead of the true one
    std::chrono::milliseconds m_delay = {};
    int m_nEvents = 1; // 0: none; 2: the same event twice
};

// Rules are flat JSON objects; docs/driver.md has their fields. All rules that fit act together: the
// longest delay and the last status count, and an answer that one rule drops is dropped.
class CFaultRules
{
public:
    static constexpr size_t MAX_RULES = 1000;

    // Returns the id of the new rule, or nothing and the reason in strError. Ids rise from 1.
    std::optional<int> add(const nlohmann::json& rule, std::string& strError);
    // False when there is no such rule.
    bool remove(int nID);
    // Returns how many there were.
    size_t removeAll();

    // All rules by id: their fields, their id, and how often they matched and acted.
    nlohmann::ordered_json toJson() const;

    // To be asked once for each command before it is carried out. strCallID is that of its stream, empty
    // when it has none.
    CFaultAction onCommand(MICMD micmd, const std::string& strCallID);
    // To be asked once for each play or recording that has ended.
    CEventFault onEvent(bool bRecord, const std::string& strCallID);

private:
    struct CFaultKind; // what a rule may do, and the fields that go with it
    enum class ETarget
    {
        Commands,
        Events,
        Play, // the last two: events of one sort
        Record
    };
    struct CRule
    {
        int m_nID = 0;
        const CFaultKind* m_pKind = nullptr;
        std::string m_strOn; // as it was given
        ETarget m_eTarget = ETarget::Commands;
        const CCommandInfo* m_pCommand = nullptr; // null: any
        std::string m_strCallID;                  // empty: any
        uint64_t m_ullFirst = 1;                  // the match, counted from 1, from which on it acts
        std::optional<uint64_t> m_ullCount;
        std::optional<std::chrono::milliseconds> m_time;
        std::optional<int32_t> m_nStatus;
        uint64_t m_ullMatched = 0;
        uint64_t m_ullActed = 0;
    };
    static const CFaultKind KINDS[];

    static const CFaultKind* findKind(const std::string& strName);
    static void readTarget(CFieldReader& fields, CRule& rule);
    static void readLimits(CFieldReader& fields, CRule& rule);
    // Counts the match.
    static bool isItsTurn(CRule& rule);

    std::vector<CRule> m_vRules;
    int m_nNextID = 1;
};

#endif
