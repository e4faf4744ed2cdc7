// Flooding a pool: one producer hands 500,000 tiny items to two workers, waiting whenever both
// are busy, against the same load posted to a well-made queue-based pool of two threads. The
// two alternate round by round (and which goes first alternates too), so a change in the
// machine's load hits both; the counters are the medians over rounds, their spread (lowest and
// highest round) and the ratio of the medians.
#include <benchmark/benchmark.h>

#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "oxa_threadpool.h"

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

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t mid = values.size() / 2;
  return values.size() % 2 != 0 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

void BM_PoolFloodWaitingSubmitterVsAsio(benchmark::State& state) {
  std::vector<double> oxa;
  std::vector<double> asio;
  for (auto _ : state) {
    for (int round = 0; round < kRounds; ++round) {
      if (round % 2 == 0) {
        oxa.push_back(FloodOxa());
        asio.push_back(FloodAsio());
      } else {
        asio.push_back(FloodAsio());
        oxa.push_back(FloodOxa());
      }
    }
  }
  const auto [oxa_min, oxa_max] = std::minmax_element(oxa.begin(), oxa.end());
  const auto [asio_min, asio_max] = std::minmax_element(asio.begin(), asio.end());
  state.counters["oxa_tasks/s"] = Median(oxa);
  state.counters["oxa_min"] = *oxa_min;
  state.counters["oxa_max"] = *oxa_max;
  state.counters["asio_tasks/s"] = Median(asio);
  state.counters["asio_min"] = *asio_min;
  state.counters["asio_max"] = *asio_max;
  state.counters["ratio"] = Median(oxa) / Median(asio);
}
BENCHMARK(BM_PoolFloodWaitingSubmitterVsAsio)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
