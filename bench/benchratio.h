// Every benchmark of a node declares, beside its registration, the bare
// library call or plain loop it wraps (SONRA_BASELINE). Each program prints,
// after the console table, every such node's CPU time per iteration as a
// ratio to its baseline's with the same arguments (the median when
// repetitions are asked for), measured in the same run. The declarations
// also go into the JSON output's context, where scripts/performance.py
// reads them: the pairs are stated once, here in each benchmark's file.
#ifndef SONRA_BENCHRATIO_H
#define SONRA_BENCHRATIO_H

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

struct Baseline {
    std::string label;     // what the node's benchmark measures (its arguments in brackets)
    std::string base;      // the baseline benchmark's name
    std::string baseLabel; // what the baseline is
};

inline std::map<std::string, Baseline>& baselines()
{
    static std::map<std::string, Baseline> all; // by the node's benchmark name
    return all;
}

struct DeclareBaseline {
    DeclareBaseline(const char* node, const char* label, const char* base, const char* baseLabel)
    {
        baselines()[node] = Baseline{label, base, baseLabel};
        benchmark::AddCustomContext(std::string("baseline ") + node,
                                    std::string(base) + "\t" + label + "\t" + baseLabel);
    }
};

#define SONRA_BASELINE(node, label, base, baseLabel) \
    const DeclareBaseline sonraBaseline_##node(#node, label, #base, baseLabel)

class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (single || median) {
                m_order.push_back({run.run_name.function_name, run.run_name.args});
                m_cpuTimes[m_order.back().name()] = run.GetAdjustedCPUTime();
            }
        }
    }
    void Finalize() override
    {
        ConsoleReporter::Finalize();
        bool header = false;
        for (const Name& name : m_order) {
            const auto baseline = baselines().find(name.function);
            if (baseline == baselines().end())
                continue;
            const Name base{baseline->second.base, name.args};
            const auto found = m_cpuTimes.count(base.name()) ? m_cpuTimes.find(base.name())
                                                             : m_cpuTimes.find(baseline->second.base);
            if (found == m_cpuTimes.end() || found->second <= 0)
                continue;
            if (!header)
                std::printf("\nCPU time as a ratio to the baseline's:\n");
            header = true;
            std::printf("  %-36s %8.4f  (to %s)\n", name.name().c_str(), m_cpuTimes[name.name()] / found->second,
                        baseline->second.baseLabel.c_str());
        }
    }

private:
    struct Name {
        std::string function, args;
        std::string name() const { return args.empty() ? function : function + "/" + args; }
    };
    std::vector<Name> m_order;
    std::map<std::string, double> m_cpuTimes;
};

// The console table, then the ratios of each node to its declared baseline.
inline int runBenchmarks(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

#endif
