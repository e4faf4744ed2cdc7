// Work dispatch: the hand-off of one item to an idle pool worker, against a queue under one
// mutex and condition served by the same number of threads; and the jitter of a timer's period.
#include <benchmark/benchmark.h>

#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "oxa_threadpool.h"
#include "oxa_timer.h"

namespace {

using Clock = std::chrono::steady_clock;

void WaitSem(sem_t* sem) {
  while (sem_wait(sem) != 0 && errno == EINTR) {
  }
}

// Filled in by the item when it starts running; the benchmark thread waits for `ran`.
struct HandOffProbe {
  HandOffProbe() { sem_init(&ran, 0, 0); }
  ~HandOffProbe() { sem_destroy(&ran); }
  HandOffProbe(const HandOffProbe&) = delete;
  HandOffProbe& operator=(const HandOffProbe&) = delete;

  Clock::time_point started;
  sem_t ran;
};

void* MarkStarted(void* arg) {
  auto* probe = static_cast<HandOffProbe*>(arg);
  probe->started = Clock::now();
  sem_post(&probe->ran);
  return nullptr;
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Time from the start of the submission that succeeded to the start of the item. A worker
// marks itself idle only after its item returns, so a submission can find none idle for a
// moment; it is then simply tried again, and only the successful attempt is timed.
void BM_ThreadPoolHandOff(benchmark::State& state) {
  const auto workers = static_cast<unsigned int>(state.range(0));
  OXA_THREADPOOL pool = OXA_ThreadPool_Create(workers, workers);
  HandOffProbe probe;
  for (auto _ : state) {
    Clock::time_point submitted;
    do {
      submitted = Clock::now();
    } while (OXA_ThreadPool_Work(pool, MarkStarted, &probe) != 0);
    WaitSem(&probe.ran);
    state.SetIterationTime(Seconds(probe.started - submitted));
  }
  OXA_ThreadPool_Destroy(pool);
}
BENCHMARK(BM_ThreadPoolHandOff)->Arg(1)->Arg(4)->UseManualTime();

// The usual alternative: one shared queue, one mutex, one condition, n threads.
class CondQueuePool {
 public:
  explicit CondQueuePool(unsigned int workers) {
    for (unsigned int i = 0; i < workers; ++i)
      threads_.emplace_back([this] { Serve(); });
  }
  ~CondQueuePool() {
    {
      std::lock_guard<std::mutex> hold(mu_);
      stopping_ = true;
    }
    cv_.notify_all();
    for (std::thread& thread : threads_)
      thread.join();
  }
  CondQueuePool(const CondQueuePool&) = delete;
  CondQueuePool& operator=(const CondQueuePool&) = delete;

  void Submit(void* (*routine)(void*), void* arg) {
    {
      std::lock_guard<std::mutex> hold(mu_);
      queue_.push_back({routine, arg});
    }
    cv_.notify_one();
  }

 private:
  struct Item {
    void* (*routine)(void*);
    void* arg;
  };

  void Serve() {
    for (;;) {
      Item item;
      {
        std::unique_lock<std::mutex> hold(mu_);
        cv_.wait(hold, [&] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) return;
        item = queue_.front();
        queue_.pop_front();
      }
      item.routine(item.arg);
    }
  }

  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<Item> queue_;  // Guarded by mu_.
  bool stopping_ = false;   // Guarded by mu_.
  std::vector<std::thread> threads_;
};

void BM_CondQueueHandOff(benchmark::State& state) {
  CondQueuePool pool(static_cast<unsigned int>(state.range(0)));
  HandOffProbe probe;
  for (auto _ : state) {
    const Clock::time_point submitted = Clock::now();
    pool.Submit(MarkStarted, &probe);
    WaitSem(&probe.ran);
    state.SetIterationTime(Seconds(probe.started - submitted));
  }
}
BENCHMARK(BM_CondQueueHandOff)->Arg(1)->Arg(4)->UseManualTime();

// The start time of every call of a timer.
struct TimerCalls {
  TimerCalls() { sem_init(&called, 0, 0); }
  ~TimerCalls() { sem_destroy(&called); }
  TimerCalls(const TimerCalls&) = delete;
  TimerCalls& operator=(const TimerCalls&) = delete;

  std::mutex mu;
  std::vector<Clock::time_point> starts;  // Guarded by mu.
  sem_t called;
};

int RecordCall(unsigned int, void* user_data) {
  auto* calls = static_cast<TimerCalls*>(user_data);
  {
    std::lock_guard<std::mutex> hold(calls->mu);
    calls->starts.push_back(Clock::now());
  }
  sem_post(&calls->called);
  return 0;
}

// One iteration is one period: the time between two calls. The counters give the mean and
// the largest deviation from the nominal period, in microseconds.
void BM_TimerPeriodJitter(benchmark::State& state) {
  const auto period_ms = static_cast<unsigned int>(state.range(0));
  TimerCalls calls;
  calls.starts.reserve(static_cast<size_t>(state.max_iterations) + 1);
  unsigned int id = 0;
  OXA_SetTimer(RecordCall, &calls, period_ms, &id);
  WaitSem(&calls.called);  // the first call comes at once
  double total_us = 0;
  double worst_us = 0;
  for (auto _ : state) {
    WaitSem(&calls.called);
    Clock::duration interval;
    {
      std::lock_guard<std::mutex> hold(calls.mu);
      interval = calls.starts.back() - calls.starts[calls.starts.size() - 2];
    }
    state.SetIterationTime(Seconds(interval));
    const double deviation_us = std::fabs(Seconds(interval) * 1e6 - period_ms * 1e3);
    total_us += deviation_us;
    worst_us = std::max(worst_us, deviation_us);
  }
  OXA_KillTimer(id);
  state.counters["jitter_mean_us"] = total_us / static_cast<double>(state.iterations());
  state.counters["jitter_max_us"] = worst_us;
}
BENCHMARK(BM_TimerPeriodJitter)->Arg(1)->Arg(10)->Iterations(200)->UseManualTime();

}  // namespace
