// Probes of the library with a trace of their own.
#ifndef LIBRARY_PROBE_H
#define LIBRARY_PROBE_H

#include "LibraryUnderTest.h"
#include "Probe.h"

#include <array>
#include <string>

class CLibraryProbe : public CProbe
{
public:
    explicit CLibraryProbe(ETrace trace) : m_trace(trace) {}

    std::chrono::nanoseconds run(int64_t nOperations) final
    {
        m_library.setTrace(m_trace);
        return measure(nOperations);
    }

protected:
    virtual std::chrono::nanoseconds measure(int64_t nOperations) = 0;

    CLibraryUnderTest& m_library = CLibraryUnderTest::get();

private:
    const ETrace m_trace;
};

// Receives the library's completions in its scope. No completion may be on its way at either end.
class CListening
{
public:
    CListening(CLibraryUnderTest& library, CLibraryUnderTest::CListener& listener) : m_library(library)
    {
        m_library.setListener(&listener);
    }
    ~CListening() { m_library.setListener(nullptr); }
    CListening(const CListening&) = delete;
    CListening& operator=(const CListening&) = delete;

private:
    CLibraryUnderTest& m_library;
};

// Adds NAME-off, NAME-full, NAME-fresh and NAME-null. The probe's constructor takes the trace, then the arguments.
template <class PROBE, class... ARGUMENTS>
void addLibraryProbes(CProbeTable& table, const std::string& strName, ARGUMENTS... arguments)
{
    struct CVariant
    {
        const char* m_pSuffix;
        ETrace m_trace;
    };
    for (const CVariant& variant :
         {CVariant{"-off", ETrace::Off}, {"-full", ETrace::Full}, {"-fresh", ETrace::Fresh}, {"-null", ETrace::Null}})
    {
        table.add(
            strName + variant.m_pSuffix,
            [trace = variant.m_trace, arguments...] { return std::make_unique<PROBE>(trace, arguments...); });
    }
}

#endif
