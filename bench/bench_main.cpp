#include "bench_client.hpp"

#include <benchmark/benchmark.h>

namespace WM::bench {

BenchClient& client() {
    static BenchClient instance;
    return instance;
}

}  // namespace WM::bench

int main(int argc, char** argv) {
    WM::Initialize(&WM::bench::client());
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
