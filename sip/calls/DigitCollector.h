// Collects digits into a string that ends by count, by a terminator, or by time.
#ifndef SIP_DIGIT_COLLECTOR_H
#define SIP_DIGIT_COLLECTOR_H

#include "Loop.h"

#include <functional>
#include <string>

struct CDigitCollection
{
    size_t m_nMax = 1;
    std::string m_strTerminators = "#";
    unsigned m_uFirstMs = 0; // 0: no limit
    unsigned m_uNextMs = 0;
};

class CDigitCollector
{
public:
    // strWhy: "max", "terminator", "timeout", "ended"
    using Done = std::function<void(const std::string& strDigits, const char* pWhy)>;

    CDigitCollector(CLoop& loop, Done done) : m_timer(loop), m_done(std::move(done)) {}

    // One that is under way ends with "ended".
    void start(const CDigitCollection& collection);
    void add(char cDigit);
    void stop();
    bool isActive() const { return m_bActive; }

private:
    void wait(unsigned uMs);
    void end(const char* pWhy);

    CTimer m_timer;
    const Done m_done;
    CDigitCollection m_collection;
    std::string m_strDigits;
    bool m_bActive = false;
};

#endif
