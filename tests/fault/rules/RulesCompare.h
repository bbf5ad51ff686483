// Holds the library's containers against those of a model of its rules.
#ifndef RULES_COMPARE_H
#define RULES_COMPARE_H

#include "MIntf.h"
#include "RulesModel.h"
#include "ZelMediaStreamImpl.h"

#include <functional>
#include <string>
#include <vector>

class CRulesCompare
{
public:
    // Handlers by the model's numbers for them, and the objects of its streams. Null for none.
    typedef std::function<const CMIntfCompletionHandler*(int nHandler)> Handlers;
    typedef std::function<const CZelMediaStreamImpl*(int nObject)> Objects;

    CRulesCompare(const CMIntf& mintf, Handlers handlers, Objects objects)
        : m_mintf(mintf), m_handlers(std::move(handlers)), m_objects(std::move(objects))
    {
    }

    // The first difference, empty for none.
    std::string compare(const CRulesModel& model);

private:
    void compareActive(const CRulesModel& model, CRulesModel::Place place,
                       const std::map<int, CMIntf::CCommand*>& mapActive);
    void compareQueues(const CRulesModel& model, CRulesModel::Place place,
                       const std::map<int, CMIntf::CCommandList*>& mapQueue, const std::vector<int>& vLists);
    void compareDeadlines(const CRulesModel& model);
    void compareCommand(const CRulesModel::CCommand& expected, const CMIntf::CCommand* pcommand, const char* pszPlace);
    void compareStreams(const CRulesModel& model);
    void compareFiles(const CRulesModel& model);
    void expectEqual(int64_t llExpected, int64_t llFound, const char* pszWhat);
    void differs(const std::string& strWhat);

    const CMIntf& m_mintf;
    const Handlers m_handlers;
    const Objects m_objects;
    std::string m_strDifference;
    std::vector<const CMIntf::CCommand*> m_vSeen; // every command found
};

#endif
