// The long run of the render fuzzer, for before a release: the same generator as the test
// suite, with other seeds and many more cases. Counters: cases, rendered, refused, failures.
// Any failure is printed and makes the program exit with status 1.
#include <benchmark/benchmark.h>
#include <cstdio>

#include "QtBenchMain.h"
#include "RenderFuzzer.h"
#include "TempDir.h"

namespace {

int g_failures = 0;

void RenderFuzzLongRun(benchmark::State& state) {
    for (auto _ : state) {
        TempDir dir;
        RenderFuzzer fuzzer(dir.file(""), static_cast<unsigned>(state.range(0)));
        const RenderFuzzer::Outcome outcome = fuzzer.run(2000);
        for (const std::string& failure : outcome.failures)
            std::fprintf(stderr, "seed %lld: %s\n", static_cast<long long>(state.range(0)),
                         failure.c_str());
        g_failures += static_cast<int>(outcome.failures.size());
        std::fprintf(stderr, "seed %lld: digest of every output %016llx\n",
                     static_cast<long long>(state.range(0)),
                     static_cast<unsigned long long>(outcome.digest));
        state.counters["cases"] = outcome.cases;
        state.counters["rendered"] = outcome.rendered;
        state.counters["refused"] = outcome.refused;
        state.counters["failures"] = static_cast<double>(outcome.failures.size());
    }
}
BENCHMARK(RenderFuzzLongRun)->Arg(1)->Arg(2)->Arg(3)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    return runQtBenchmarks(argc, argv, [] { return g_failures == 0 ? 0 : 1; });
}
