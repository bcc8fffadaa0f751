#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

namespace bench {

/// How many times each figure is taken; the median of them is what counts.
constexpr int kRepetitions = 25;

/// Which time counts: that of the processor for something that only computes, that on the wall for something
/// that waits.
enum class clock { processor, wall };

/// The usual table, and after it each median as a multiple of the first: machines differ, ratios hardly.
class ratio_reporter : public benchmark::ConsoleReporter {
public:
    explicit ratio_reporter(clock what_counts) : ConsoleReporter(OO_None), m_clock(what_counts) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        benchmark::ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
                m_medians.push_back({run.run_name.function_name, time_of(run)});
    }

    void Finalize() override
    {
        for (const median& each : m_medians)
            std::printf("%-40s %12.1f ns %10.2f times %s\n", each.name.c_str(), each.nanoseconds,
                        each.nanoseconds / m_medians.front().nanoseconds, m_medians.front().name.c_str());
    }

private:
    struct median {
        std::string name;
        double nanoseconds;
    };

    double time_of(const Run& run) const
    {
        return m_clock == clock::processor ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
    }

    clock m_clock;
    std::vector<median> m_medians;
};

/// Runs the benchmarks that were registered. To be returned from main.
inline int run(int argc, char** argv, clock what_counts)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    ratio_reporter reporter(what_counts);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}

} // namespace bench
