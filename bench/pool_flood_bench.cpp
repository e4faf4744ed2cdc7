// Flooding a pool: one producer submits tiny tasks as fast as the pool takes them, to a fixed
// pool of two workers, with OXA_ThreadPool_WorkEx's wait flag (the submitter waits for a free
// worker) against boost::asio::thread_pool (an unbounded queue). Both take turns round by
// round; a round ends after kTasks tasks or kRoundSeconds, whichever comes first, so a slow
// hand-over shows as a low rate instead of a long run.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "oxa_threadpool.h"

#include "side_by_side.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 3;
constexpr long kTasks = 500000;
constexpr double kRoundSeconds = 1.0;
constexpr unsigned int kWorkers = 2;

std::atomic<long> g_done{0};

void* CountOne(void*) {
  g_done.fetch_add(1, std::memory_order_relaxed);
  return nullptr;
}

// Submits until kTasks or the time is up, waits for what was accepted, returns tasks/s; a
// negative value when a submission failed.
template <typename Submit, typename Drain>
double Flood(Submit submit, Drain drain) {
  g_done.store(0);
  const auto start = Clock::now();
  const auto stop = start + std::chrono::duration<double>(kRoundSeconds);
  long submitted = 0;
  while (submitted < kTasks && (submitted % 256 != 0 || Clock::now() < stop)) {
    if (!submit()) return -1;
    ++submitted;
  }
  drain(submitted);
  const std::chrono::duration<double> took = Clock::now() - start;
  return submitted / took.count();
}

void WaitForDone(long submitted) {
  while (g_done.load(std::memory_order_relaxed) < submitted)
    std::this_thread::yield();
}

void BM_PoolFlood(benchmark::State& state) {
  oxa_bench::Samples oxa_rate;
  oxa_bench::Samples asio_rate;
  bool failed = false;
  for (auto _ : state) {
    OXA_THREADPOOL pool = OXA_ThreadPool_Create(kWorkers, kWorkers);
    if (pool == nullptr) {
      state.SkipWithError("cannot create the pool");
      return;
    }
    oxa_bench::Interleave(kRounds, 2, [&](int who, int) {
      double rate;
      if (who == 0) {
        rate = Flood([&] { return OXA_ThreadPool_WorkEx(pool, CountOne, nullptr, 1) == 0; },
                     WaitForDone);
      } else {
        boost::asio::thread_pool asio_pool(kWorkers);
        rate = Flood(
            [&] {
              boost::asio::post(asio_pool, [] { CountOne(nullptr); });
              return true;
            },
            [&](long) { asio_pool.join(); });
      }
      failed = rate < 0;
      (who == 0 ? oxa_rate : asio_rate).values.push_back(rate);
      return !failed;
    });
    OXA_ThreadPool_Destroy(pool);
  }
  if (failed) {
    state.SkipWithError("a submission failed");
    return;
  }
  oxa_bench::Report(state, "oxa_tasks/s", oxa_rate);
  oxa_bench::Report(state, "asio_tasks/s", asio_rate);
  state.counters["oxa/asio"] = oxa_rate.Median() / asio_rate.Median();
}
BENCHMARK(BM_PoolFlood)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace
