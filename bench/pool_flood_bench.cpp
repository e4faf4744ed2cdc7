// Flooding a pool: one producer hands 500,000 tiny items to two workers, waiting whenever both
// are busy, against the same load posted to a well-made queue-based pool of two threads. The
// two alternate round by round (and which goes first alternates too), so a change in the
// machine's load hits both; the counters are the medians over rounds, their spread and the
// ratio of the medians.
#include <benchmark/benchmark.h>

#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "oxa_threadpool.h"

#include "side_by_side.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTasks = 500000;
constexpr unsigned int kWorkers = 2;
constexpr int kRounds = 5;

// Counts finished items; the last one posts `finished`, so neither contender needs a thread
// spinning on the count while its workers run.
struct Completion {
  Completion() { sem_init(&finished, 0, 0); }
  ~Completion() { sem_destroy(&finished); }
  Completion(const Completion&) = delete;
  Completion& operator=(const Completion&) = delete;

  void Await() {
    while (sem_wait(&finished) != 0 && errno == EINTR) {
    }
  }

  std::atomic<int> done{0};
  sem_t finished;
};

void* CountDone(void* arg) {
  auto* completion = static_cast<Completion*>(arg);
  if (completion->done.fetch_add(1, std::memory_order_relaxed) + 1 == kTasks)
    sem_post(&completion->finished);
  return nullptr;
}

double TasksPerSecond(Clock::time_point start) {
  return kTasks / std::chrono::duration<double>(Clock::now() - start).count();
}

// OXA_ThreadPool_WorkEx with the wait flag: a submission that finds no idle worker waits until
// one becomes idle.
double FloodOxa() {
  OXA_THREADPOOL pool = OXA_ThreadPool_Create(kWorkers, kWorkers);
  Completion completion;
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < kTasks; ++i) {
    if (OXA_ThreadPool_WorkEx(pool, CountDone, &completion, 1) != 0) std::abort();
  }
  completion.Await();
  const double rate = TasksPerSecond(start);
  OXA_ThreadPool_Destroy(pool);
  return rate;
}

// The peer: a queue-based pool that never makes the producer wait.
double FloodAsio() {
  boost::asio::thread_pool pool(kWorkers);
  Completion completion;
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < kTasks; ++i)
    boost::asio::post(pool, [&completion] { CountDone(&completion); });
  completion.Await();
  const double rate = TasksPerSecond(start);
  pool.join();
  return rate;
}

void BM_PoolFloodWaitingSubmitterVsAsio(benchmark::State& state) {
  oxa_bench::Samples oxa;
  oxa_bench::Samples asio;
  for (auto _ : state) {
    oxa_bench::Interleave(kRounds, 2, [&](int contender, int) {
      if (contender == 0) {
        oxa.values.push_back(FloodOxa());
      } else {
        asio.values.push_back(FloodAsio());
      }
      return true;
    });
  }
  oxa_bench::Report(state, "oxa_tasks/s", oxa);
  oxa_bench::Report(state, "asio_tasks/s", asio);
  state.counters["ratio"] = oxa.Median() / asio.Median();
}
BENCHMARK(BM_PoolFloodWaitingSubmitterVsAsio)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
