// The console table, then every benchmark's CPU time per iteration as a
// ratio to one reference benchmark's (the median when repetitions are
// asked for), measured in the same run.
#ifndef SONRA_BENCHRATIO_H
#define SONRA_BENCHRATIO_H

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter(const std::string& reference, const std::string& description)
        : ConsoleReporter(isatty(fileno(stdout)) ? OO_ColorTabular : OO_Tabular), m_reference(reference),
          m_description(description)
    {
    }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (single || median)
                m_cpuTimes.push_back(std::make_pair(run.run_name.function_name, run.GetAdjustedCPUTime()));
        }
    }
    void Finalize() override
    {
        ConsoleReporter::Finalize();
        double reference = 0;
        for (const auto& time : m_cpuTimes) {
            if (time.first == m_reference)
                reference = time.second;
        }
        if (reference <= 0)
            return;
        std::printf("\nCPU time as a ratio to %s:\n", m_description.c_str());
        for (const auto& time : m_cpuTimes)
            std::printf("  %-22s %8.4f\n", time.first.c_str(), time.second / reference);
    }

private:
    std::string m_reference, m_description;
    std::vector<std::pair<std::string, double> > m_cpuTimes;
};

#endif
