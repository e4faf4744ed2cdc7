// Memory pools against the allocators an application would otherwise use, in one run.
//
// A round allocates a working set of blocks (touching each), then frees them all, either in
// reverse order (LIFO) or in a fixed shuffled order (random); the rate is alloc+free pairs per
// of the benchmark thread's CPU time, so that other processes on a shared machine do not count.
// Each cell runs its contenders in alternating slices, so a change of the machine's load meets
// them alike, and reports every rate and the ratios to the peers:
//   - fixed-size pool, locked and no-lock, against malloc/free and boost::pool<>, for 64- and
//     1,500-byte blocks;
//   - variable-size pool and global pool against malloc/free, for sizes from 16 to 4096 bytes.
// The last cell gives the geometric means of the ratios over the cells.
//
// glibc's malloc raises its trim and mmap thresholds the first time a large mapped block is
// freed, after which freeing a working set stops giving memory back to the system. A long
// running process is in that state, and so is malloc here, whatever ran before in this process:
// a conservative peer, and the same one in every run.
#include <benchmark/benchmark.h>

#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <boost/pool/pool.hpp>

#include "oxa_memory.h"

namespace {

constexpr int kSlices = 4;
constexpr double kSliceSeconds = 0.1;

// CPU seconds of the calling thread.
double ThreadSeconds() {
  struct timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Workload {
  std::vector<unsigned int> sizes;  // request size per slot
  std::vector<size_t> free_order;   // slot indexes in the order they are freed
};

Workload MakeWorkload(size_t count, bool random_order, unsigned int min_size,
                      unsigned int max_size) {
  std::mt19937 random(12345);
  std::uniform_int_distribution<unsigned int> size(min_size, max_size);
  Workload w;
  for (size_t i = 0; i < count; ++i)
    w.sizes.push_back(size(random));
  w.free_order.resize(count);
  std::iota(w.free_order.begin(), w.free_order.end(), 0);
  if (random_order) {
    std::shuffle(w.free_order.begin(), w.free_order.end(), random);
  } else {
    std::reverse(w.free_order.begin(), w.free_order.end());
  }
  return w;
}

// One contender's rate so far.
struct Rate {
  double pairs = 0;
  double seconds = 0;
  bool failed = false;
  double PerSecond() const { return seconds > 0 ? pairs / seconds : 0; }
};

// Rounds for about kSliceSeconds; an allocation failure marks the contender failed.
template <class Alloc, class Free>
void RunSlice(const Workload& w, Alloc alloc, Free free_block, Rate* rate) {
  std::vector<void*> slots(w.sizes.size());
  const double start = ThreadSeconds();
  double elapsed = 0;
  do {
    for (size_t i = 0; i < slots.size(); ++i) {
      void* p = alloc(w.sizes[i]);
      if (p == nullptr) {
        rate->failed = true;
        for (size_t j = 0; j < i; ++j)
          free_block(slots[j]);
        return;
      }
      *static_cast<volatile char*>(p) = 1;
      slots[i] = p;
    }
    for (size_t index : w.free_order)
      free_block(slots[index]);
    rate->pairs += static_cast<double>(slots.size());
    elapsed = ThreadSeconds() - start;
  } while (elapsed < kSliceSeconds);
  rate->seconds += elapsed;
}

// Geometric means of the ratios, filled in by the cells and printed by the last one.
struct RatioLog {
  std::vector<double> locked_vs_malloc, nolock_vs_boost, ex_vs_malloc, global_vs_malloc;
};
RatioLog g_ratios;

double GeometricMean(const std::vector<double>& values) {
  if (values.empty()) return 0;
  double log_sum = 0;
  for (double v : values)
    log_sum += std::log(v);
  return std::exp(log_sum / static_cast<double>(values.size()));
}

void SettleMalloc() {
  static const bool settled = [] {
    void* volatile big = malloc(16u << 20);  // mapped, so freeing it raises the thresholds;
    free(big);                               // volatile, or the compiler drops the pair
    return true;
  }();
  (void)settled;
}

// Arguments: block bytes, 1 for random order, working-set blocks.
void BM_FixedPool(benchmark::State& state) {
  SettleMalloc();
  const auto block = static_cast<unsigned int>(state.range(0));
  const auto count = static_cast<unsigned int>(state.range(2));
  const Workload w = MakeWorkload(count, state.range(1) != 0, block, block);
  Rate sys, boost_rate, locked, nolock;
  for (auto _ : state) {
    boost::pool<> boost_pool(block);
    OXA_MemoryPool locked_pool(block, count, count, 0, -1, 0);
    OXA_MemoryPool nolock_pool(block, count, count, 0, -1, 1);
    for (int i = 0; i < kSlices; ++i) {
      RunSlice(
          w, [](unsigned int n) { return malloc(n); }, [](void* p) { free(p); }, &sys);
      RunSlice(
          w, [&](unsigned int) { return boost_pool.malloc(); },
          [&](void* p) { boost_pool.free(p); }, &boost_rate);
      RunSlice(
          w, [&](unsigned int) { return locked_pool.Alloc(); },
          [&](void* p) { locked_pool.Free(p); }, &locked);
      RunSlice(
          w, [&](unsigned int) { return nolock_pool.Alloc(); },
          [&](void* p) { nolock_pool.Free(p); }, &nolock);
    }
  }
  if (sys.failed || boost_rate.failed || locked.failed || nolock.failed) {
    state.SkipWithError("an allocation failed");
    return;
  }
  state.counters["malloc/s"] = sys.PerSecond();
  state.counters["boost/s"] = boost_rate.PerSecond();
  state.counters["locked/s"] = locked.PerSecond();
  state.counters["nolock/s"] = nolock.PerSecond();
  state.counters["locked/malloc"] = locked.PerSecond() / sys.PerSecond();
  state.counters["nolock/boost"] = nolock.PerSecond() / boost_rate.PerSecond();
  g_ratios.locked_vs_malloc.push_back(locked.PerSecond() / sys.PerSecond());
  g_ratios.nolock_vs_boost.push_back(nolock.PerSecond() / boost_rate.PerSecond());
}
BENCHMARK(BM_FixedPool)
    ->ArgNames({"bytes", "random", "blocks"})
    ->ArgsProduct({{64, 1500}, {0, 1}, {1024, 65536}})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kSecond);

// Arguments: 1 for random order, working-set blocks; sizes from 16 to 4096 bytes.
void BM_VariablePools(benchmark::State& state) {
  SettleMalloc();
  const auto count = static_cast<unsigned int>(state.range(1));
  const Workload w = MakeWorkload(count, state.range(0) != 0, 16, 4096);
  if (OXA_MemoryPoolGlobal_Init(0x80000000u) != 1) {
    state.SkipWithError("global pool set-up failed");
    return;
  }
  Rate sys, ex, global;
  for (auto _ : state) {
    OXA_MemoryPoolEx ex_pool(1, 1u << 16, -1, 0, 65536);
    for (int i = 0; i < kSlices; ++i) {
      RunSlice(
          w, [](unsigned int n) { return malloc(n); }, [](void* p) { free(p); }, &sys);
      RunSlice(
          w, [&](unsigned int n) { return ex_pool.Alloc(n); }, [&](void* p) { ex_pool.Free(p); },
          &ex);
      RunSlice(w, OXA_MemoryPoolGlobal_Alloc, OXA_MemoryPoolGlobal_Free, &global);
    }
  }
  if (sys.failed || ex.failed || global.failed) {
    state.SkipWithError("an allocation failed");
    return;
  }
  state.counters["malloc/s"] = sys.PerSecond();
  state.counters["ex/s"] = ex.PerSecond();
  state.counters["global/s"] = global.PerSecond();
  state.counters["ex/malloc"] = ex.PerSecond() / sys.PerSecond();
  state.counters["global/malloc"] = global.PerSecond() / sys.PerSecond();
  g_ratios.ex_vs_malloc.push_back(ex.PerSecond() / sys.PerSecond());
  g_ratios.global_vs_malloc.push_back(global.PerSecond() / sys.PerSecond());
}
BENCHMARK(BM_VariablePools)
    ->ArgNames({"random", "blocks"})
    ->ArgsProduct({{0, 1}, {1024, 65536}})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kSecond);

void BM_PoolRatiosGeometricMean(benchmark::State& state) {
  for (auto _ : state) {
  }
  state.counters["locked/malloc"] = GeometricMean(g_ratios.locked_vs_malloc);
  state.counters["nolock/boost"] = GeometricMean(g_ratios.nolock_vs_boost);
  state.counters["ex/malloc"] = GeometricMean(g_ratios.ex_vs_malloc);
  state.counters["global/malloc"] = GeometricMean(g_ratios.global_vs_malloc);
}
BENCHMARK(BM_PoolRatiosGeometricMean)->Iterations(1);

}  // namespace
