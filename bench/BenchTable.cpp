// Commands the workers of both widths, probe by probe in random order, and shows what comes out as one table.
#include "BenchTable.h"
#include "WorkerProcess.h"

#include <CLI/CLI.hpp>
#include <benchmark/benchmark.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <stdexcept>

namespace
{
struct COptions
{
    CPrograms m_programs;
    std::vector<std::string> m_vstrWorkers; // WIDTH=PROGRAM
    std::string m_strJson;
    std::string m_strOnly;
    bool m_bQuick = false;
    int m_nRepetitions = 25;
};

// What is run of one section, for each width.
struct CMeasurement
{
    std::string m_strProbe;
    int64_t m_nOperations = 0;
};

// The rows' probes and their limits, each once.
std::vector<CMeasurement> measurements(const CSection& section, bool bNative)
{
    std::vector<CMeasurement> vMeasurements;
    std::set<std::string> setKnown;
    for (const CRow& row : section.m_vRows)
    {
        if (row.m_bNativeOnly && !bNative)
            continue;
        for (const std::string& strProbe : {row.m_strLimit, row.m_strProbe})
            if (!strProbe.empty() && setKnown.insert(strProbe).second)
                vMeasurements.push_back({strProbe, row.m_nOperations});
    }
    return vMeasurements;
}

// Puts the repetitions of benchmarks named WIDTH/PROBE into the last section's figures of their width.
class CCollector : public benchmark::BenchmarkReporter
{
public:
    explicit CCollector(std::vector<CWidth>& vWidths) : m_vWidths(vWidths) {}

    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& vRuns) override
    {
        for (const Run& run : vRuns)
        {
            const std::string& strName = run.run_name.function_name;
            const size_t nSlash = strName.find('/');
            for (CWidth& width : m_vWidths)
                if (width.m_strName == strName.substr(0, nSlash) && run.run_type == Run::RT_Iteration)
                    keep(width, strName.substr(nSlash + 1), run);
        }
    }

private:
    static void keep(CWidth& width, const std::string& strProbe, const Run& run)
    {
        if (run.error_occurred)
            width.m_mapErrors.emplace(strProbe, run.error_message); // the first one tells most
        else
            width.m_vFigures.back()[strProbe].push_back(run.real_accumulated_time * 1e9 /
                                                        static_cast<double>(run.iterations));
    }

    std::vector<CWidth>& m_vWidths;
};

void registerProbe(CWorkerProcess& worker, const std::string& strWidth, const CMeasurement& measurement, bool bQuick,
                   int nRepetitions)
{
    const std::string strProbe = measurement.m_strProbe;
    auto* const pBenchmark =
        benchmark::RegisterBenchmark((strWidth + "/" + strProbe).c_str(), [&worker, strProbe](benchmark::State& state) {
            while (state.KeepRunningBatch(state.max_iterations))
            {
                try
                {
                    const auto time = worker.run(strProbe, state.max_iterations);
                    state.SetIterationTime(std::chrono::duration<double>(time).count());
                }
                catch (const std::exception& exception)
                {
                    state.SkipWithError(exception.what());
                    return;
                }
            }
        });
    pBenchmark->UseManualTime()->Repetitions(nRepetitions);
    if (measurement.m_nOperations > 0)
        pBenchmark->Iterations(measurement.m_nOperations);
    else
        pBenchmark->MinTime(bQuick ? 0.01 : 0.03);
}

void setInterleaving(bool bRandom)
{
    std::vector<std::string> vstrArguments = {"bench-table", std::string("--benchmark_enable_random_interleaving=") +
                                                                 (bRandom ? "true" : "false")};
    std::vector<char*> vpArguments;
    for (std::string& strArgument : vstrArguments)
        vpArguments.push_back(strArgument.data());
    int nArguments = static_cast<int>(vpArguments.size());
    benchmark::Initialize(&nArguments, vpArguments.data());
}

void measure(const CSection& section, std::vector<CWidth>& vWidths, const COptions& options)
{
    int nRepetitions = options.m_bQuick ? std::min(options.m_nRepetitions, 7) : options.m_nRepetitions;
    if (section.m_nRepetitions > 0)
        nRepetitions = std::min(nRepetitions, section.m_nRepetitions);
    std::vector<std::unique_ptr<CWorkerProcess>> vpWorkers;
    for (CWidth& width : vWidths)
    {
        width.m_vFigures.emplace_back();
        const std::vector<CMeasurement> vMeasurements = measurements(section, width.m_strName == "amd64");
        if (vMeasurements.empty())
            continue;
        vpWorkers.push_back(std::make_unique<CWorkerProcess>(options.m_programs, width.m_strWorker));
        for (const CMeasurement& measurement : vMeasurements)
            registerProbe(*vpWorkers.back(), width.m_strName, measurement, options.m_bQuick, nRepetitions);
    }
    setInterleaving(!section.m_bInTurn);
    CCollector collector(vWidths);
    benchmark::RunSpecifiedBenchmarks(&collector, "all");
    benchmark::ClearRegisteredBenchmarks();
}

std::vector<CWidth> widths(const COptions& options)
{
    std::vector<CWidth> vWidths;
    for (const std::string& strWorker : options.m_vstrWorkers)
    {
        const size_t nEqual = strWorker.find('=');
        vWidths.push_back({strWorker.substr(0, nEqual), strWorker.substr(nEqual + 1), {}, {}});
    }
    return vWidths;
}

std::vector<CSection> sections(const COptions& options)
{
    std::vector<CSection> vSections;
    addExchangeRows(vSections);
    addEventRows(vSections);
    addLogRows(vSections);
    addGrowthRows(vSections);
    addPeerRows(vSections);
    std::erase_if(vSections, [&options](const CSection& section) {
        return !section.m_vRows.front().m_strProbe.starts_with(options.m_strOnly);
    });
    return vSections;
}

// Away from the core of what is measured.
void moveAside()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(1, &set);
    if (::sched_setaffinity(0, sizeof(set), &set) != 0)
        std::fputs("bench-table: there is no second core to stay away on\n", stderr);
}

int run(const COptions& options)
{
    moveAside();
    const std::vector<CSection> vSections = sections(options);
    if (vSections.empty())
        throw std::runtime_error("no section's first probe begins with " + options.m_strOnly);
    std::vector<CWidth> vWidths = widths(options);
    for (const CSection& section : vSections)
    {
        const auto start = std::chrono::steady_clock::now();
        std::fprintf(stderr, "measuring %-26s", section.m_vRows.front().m_strProbe.c_str());
        measure(section, vWidths, options);
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        std::fprintf(stderr, " %6.1f s\n", time.count());
    }
    printTable(vSections, vWidths);
    if (!options.m_strJson.empty())
        writeJson(options.m_strJson, vSections, vWidths);
    for (const CWidth& width : vWidths)
        for (const auto& [strProbe, strError] : width.m_mapErrors)
            std::fprintf(stderr, "%s, %s: %s\n", width.m_strName.c_str(), strProbe.c_str(), strError.c_str());
    return std::any_of(vWidths.begin(), vWidths.end(), [](const CWidth& width) { return !width.m_mapErrors.empty(); })
               ? EXIT_FAILURE
               : EXIT_SUCCESS;
}
} // namespace

int main(int nArguments, char** ppArguments)
{
    COptions options;
    CLI::App app("Measures the library against the cost of the pipes");
    app.add_option("--private-tmp", options.m_programs.m_strPrivateTmp, "runs a program in a /tmp of its own")
        ->required();
    app.add_option("--peer", options.m_programs.m_strPeer, "the driver that answers")->required();
    app.add_option("--worker", options.m_vstrWorkers, "WIDTH=PROGRAM that is measured; once for each width")
        ->required();
    app.add_option("--json", options.m_strJson, "file that all figures are written to");
    app.add_option("--only", options.m_strOnly, "measure only sections whose first probe's name begins so");
    app.add_option("--repetitions", options.m_nRepetitions, "of each measurement")->check(CLI::Range(1, 1000));
    app.add_flag("--quick", options.m_bQuick, "fewer and shorter measurements");
    CLI11_PARSE(app, nArguments, ppArguments);
    try
    {
        return run(options);
    }
    catch (const std::exception& exception)
    {
        std::fprintf(stderr, "bench-table: %s\n", exception.what());
        return EXIT_FAILURE;
    }
}
