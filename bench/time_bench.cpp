// Reading the clocks: liboxa's ticks and time values against clock_gettime and gettimeofday.
#include <benchmark/benchmark.h>

#include <sys/time.h>
#include <time.h>

#include "oxa_time.h"

namespace {

void BM_RawClockGettimeMonotonic(benchmark::State& state) {
  struct timespec now;
  for (auto _ : state) {
    clock_gettime(CLOCK_MONOTONIC, &now);
    benchmark::DoNotOptimize(now);
  }
}
BENCHMARK(BM_RawClockGettimeMonotonic);

void BM_OxaGetTimeTick(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(OXA_GetTimeTick());
}
BENCHMARK(BM_OxaGetTimeTick);

void BM_OxaGetTimeTick64(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(OXA_GetTimeTick64());
}
BENCHMARK(BM_OxaGetTimeTick64);

void BM_RawGettimeofday(benchmark::State& state) {
  struct timeval now;
  for (auto _ : state) {
    gettimeofday(&now, nullptr);
    benchmark::DoNotOptimize(now);
  }
}
BENCHMARK(BM_RawGettimeofday);

void BM_OxaTimeNow(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(OXA_TimeNow());
}
BENCHMARK(BM_OxaTimeNow);

}  // namespace
