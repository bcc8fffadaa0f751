#include <benchmark/benchmark.h>

#include <cstdio>

#include "bench/ratio_reporter.h"
#include "common/log/logger.h"
#include "support/open_log.h"
#include "support/private_paths.h"

using vl::common::log::ESeveryLevel;
using vl::common::log::Logger;

// What one log statement costs: on the way of every transfer there are six of them.

namespace {

void statement(benchmark::State& state)
{
    int count = 512;
    for (auto each : state) {
        benchmark::DoNotOptimize(count);
        Logger("bench", __LINE__, ESeveryLevel::info)("transferred %d bytes, total %d/%d", count, count, 512);
    }
}

void off_for_want_of_a_log_directory(benchmark::State& state)
{
    support::close_log();
    statement(state);
}

void off_by_the_level(benchmark::State& state)
{
    support::open_log(3);
    statement(state);
    support::close_log();
}

void written(benchmark::State& state)
{
    support::open_log(1);
    statement(state);
    support::close_log();
}

BENCHMARK(off_for_want_of_a_log_directory)->Repetitions(bench::kRepetitions)->ReportAggregatesOnly();
BENCHMARK(off_by_the_level)->Repetitions(bench::kRepetitions)->ReportAggregatesOnly();
BENCHMARK(written)->Repetitions(bench::kRepetitions)->ReportAggregatesOnly()->MinTime(0.05);

} // namespace

int main(int argc, char** argv)
{
    if (!support::enter_private_paths()) {
        std::fputs("bench_log: would write into this machine's own log directory; run it as root\n", stderr);
        return 1;
    }
    return bench::run(argc, argv, bench::clock::processor);
}
