// Appending to the record: the time of one append must not depend on how long the response is.
#include <benchmark/benchmark.h>
#include <string>

#include "agent_common.h"

using namespace zorvik;

static void append(benchmark::State &state)
{
    const std::string line(70, 'x');
    for (auto _ : state) {
        for (int64_t i = 0; i < state.range(0); i++)
            conn_send2(line.data(), static_cast<int>(line.size()));
        conn_free(&the_connection);
    }
    state.counters["per_append"] = benchmark::Counter(
        static_cast<double>(state.range(0)),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(append)
    ->RangeMultiplier(10)
    ->Range(1000, 100000)
    ->Arg(300000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
