// Flooding a pool: one producer hands many tiny items to two workers and waits whenever both
// are busy, against the same load posted to a well-made queue-based pool of two threads.
#include <benchmark/benchmark.h>

#include <atomic>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "oxa_threadpool.h"

namespace {

constexpr int kTasks = 500000;
constexpr unsigned int kWorkers = 2;

std::atomic<int> g_done{0};

void* CountDone(void*) {
  g_done.fetch_add(1, std::memory_order_relaxed);
  return nullptr;
}

// OXA_ThreadPool_WorkEx with the wait flag: a submission that finds no idle worker sleeps
// until one becomes idle.
void BM_PoolFloodWaitingSubmitter(benchmark::State& state) {
  OXA_THREADPOOL pool = OXA_ThreadPool_Create(kWorkers, kWorkers);
  for (auto _ : state) {
    g_done = 0;
    for (int i = 0; i < kTasks; ++i)
      OXA_ThreadPool_WorkEx(pool, CountDone, nullptr, 1);
    while (g_done.load(std::memory_order_relaxed) != kTasks) {
    }
  }
  OXA_ThreadPool_Destroy(pool);
  state.SetItemsProcessed(state.iterations() * kTasks);
}
BENCHMARK(BM_PoolFloodWaitingSubmitter)->Iterations(1)->Repetitions(5)->UseRealTime();

// The peer: a queue-based pool that never makes the producer wait.
void BM_PoolFloodAsioThreadPool(benchmark::State& state) {
  for (auto _ : state) {
    g_done = 0;
    boost::asio::thread_pool pool(kWorkers);
    for (int i = 0; i < kTasks; ++i)
      boost::asio::post(pool, [] { CountDone(nullptr); });
    pool.join();
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
}
BENCHMARK(BM_PoolFloodAsioThreadPool)->Iterations(1)->Repetitions(5)->UseRealTime();

}  // namespace
