// A handler that keeps a line for each callback, for tests of libZelCallLib.
#ifndef CALL_HANDLER_RECORD_H
#define CALL_HANDLER_RECORD_H

#include "ZelCallServices.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// "offered n1-1/1", "digit n1-1/1 5 120", "ended n1-1/1 hangup 0", "failed 3 CCS_REFUSED", "lost", "restored". A
// function for the beginning of a line is called from within the callback.
class CCallHandlerRecord : public CZelCallHandler
{
public:
    using Function = std::function<void(const CZelCallInfo& call)>;

    void OnCallOffered(const CZelCallInfo& call) override { add("offered", call); }
    void OnCallProgress(const CZelCallInfo& call, int nStatus) override
    {
        add("progress", call, std::to_string(nStatus));
    }
    void OnCallAnswered(const CZelCallInfo& call) override { add("answered", call); }
    void OnCallDigit(const CZelCallInfo& call, char cDigit, unsigned long ulMs) override
    {
        add("digit", call, std::string(1, cDigit) + ' ' + std::to_string(ulMs));
    }
    void OnCallDigits(const CZelCallInfo& call, const std::string& strDigits, CC_DIGITS_END eWhy) override
    {
        add("digits", call, strDigits + ' ' + std::to_string(eWhy));
    }
    void OnCallSpeech(const CZelCallInfo& call, bool bBegins) override
    {
        add("speech", call, bBegins ? "begins" : "ends");
    }
    void OnCallHeld(const CZelCallInfo& call, bool bHeld) override { add("held", call, bHeld ? "yes" : "no"); }
    void OnCallTransferred(const CZelCallInfo& call, int nStatus) override
    {
        add("transferred", call, std::to_string(nStatus));
    }
    void OnCallEnded(const CZelCallInfo& call, CC_END_REASON eReason, int nStatus) override
    {
        add("ended", call, CCENDREASONToString(eReason) + (' ' + std::to_string(nStatus)));
    }
    void OnRequestFailed(unsigned long ulRequest, CCSTATUS status, const std::string&) override
    {
        add("failed " + std::to_string(ulRequest) + ' ' + CCSTATUSToString(status), CZelCallInfo());
    }
    void OnControlLost() override { add("lost", CZelCallInfo()); }
    void OnControlRestored() override { add("restored", CZelCallInfo()); }
    void OnCallClaimed(const CZelCallInfo& call) override { add("claimed", call); }
    void OnCallRecorded(const CZelCallInfo& call, const std::string& strFile, bool bOK) override
    {
        add("recorded", call, strFile + (bOK ? " whole" : " broken"));
    }

    void on(const std::string& strBegin, Function function)
    {
        const std::lock_guard<std::mutex> hold(m_mutex);
        m_mapFunctions[strBegin] = std::move(function);
    }

    std::vector<std::string> lines() const
    {
        const std::lock_guard<std::mutex> hold(m_mutex);
        return m_vLines;
    }
    size_t count(const std::string& strBegin) const
    {
        const auto vLines = lines();
        return static_cast<size_t>(std::count_if(vLines.begin(), vLines.end(), [&](const std::string& strLine) {
            return strLine.compare(0, strBegin.size(), strBegin) == 0;
        }));
    }
    // Waits until that many lines begin so. False when they do not come.
    bool wait(const std::string& strBegin, size_t nCount = 1) const
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        std::unique_lock<std::mutex> hold(m_mutex);
        for (;;)
        {
            const auto nFound = std::count_if(m_vLines.begin(), m_vLines.end(), [&](const std::string& strLine) {
                return strLine.compare(0, strBegin.size(), strBegin) == 0;
            });
            if (static_cast<size_t>(nFound) >= nCount)
                return true;
            if (m_changed.wait_until(hold, end) == std::cv_status::timeout)
                return false;
        }
    }
    // The call of the last line that begins so.
    CZelCallInfo call(const std::string& strBegin) const
    {
        EXPECT_TRUE(wait(strBegin)) << strBegin;
        const std::lock_guard<std::mutex> hold(m_mutex);
        for (size_t n = m_vLines.size(); n > 0; --n)
            if (m_vLines[n - 1].compare(0, strBegin.size(), strBegin) == 0)
                return m_vCalls[n - 1];
        return CZelCallInfo();
    }

private:
    void add(const std::string& strWhat, const CZelCallInfo& call, const std::string& strMore = "")
    {
        std::string strLine = strWhat;
        if (!call.m_strCallID.empty())
            strLine += ' ' + call.m_strCallID + '/' + std::to_string(call.m_ulLegID);
        if (!strMore.empty())
            strLine += ' ' + strMore;
        Function function;
        {
            const std::lock_guard<std::mutex> hold(m_mutex);
            for (const auto& item : m_mapFunctions)
                if (strLine.compare(0, item.first.size(), item.first) == 0)
                    function = item.second;
        }
        if (function)
            function(call);
        const std::lock_guard<std::mutex> hold(m_mutex);
        m_vLines.push_back(strLine);
        m_vCalls.push_back(call);
        m_changed.notify_all();
    }

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<std::string> m_vLines;
    std::vector<CZelCallInfo> m_vCalls;
    std::map<std::string, Function> m_mapFunctions;
};

#endif
