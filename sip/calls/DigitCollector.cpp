// Collects digits into a string that ends by count, by a terminator, or by time.
#include "DigitCollector.h"

#include <utility>

void CDigitCollector::start(const CDigitCollection& collection)
{
    stop();
    m_collection = collection;
    m_bActive = true;
    wait(m_collection.m_uFirstMs);
}

void CDigitCollector::add(char cDigit)
{
    if (!m_bActive)
        return;
    if (m_collection.m_strTerminators.find(cDigit) != std::string::npos)
    {
        end("terminator");
        return;
    }
    m_strDigits += cDigit;
    if (m_strDigits.size() >= m_collection.m_nMax)
    {
        end("max");
        return;
    }
    wait(m_collection.m_uNextMs);
}

void CDigitCollector::stop()
{
    if (m_bActive)
        end("ended");
}

void CDigitCollector::wait(unsigned uMs)
{
    m_timer.stop();
    if (uMs > 0)
        m_timer.start(std::chrono::milliseconds(uMs), [this] { end("timeout"); });
}

void CDigitCollector::end(const char* pWhy)
{
    m_timer.stop();
    m_bActive = false;
    m_done(std::exchange(m_strDigits, {}), pWhy);
}
