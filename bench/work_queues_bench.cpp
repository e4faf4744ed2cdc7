// Message queue, lock-free queue and flexible pool, each against a well-made peer in the same
// cell: the peers and liboxa run the same workload in alternating slices, so that a change of
// the machine's load meets both alike. Each cell reports both rates and the ratio
// liboxa / peer (above 1.0: liboxa is faster; for latencies, peer / liboxa, likewise).
//
// Peers: a std::deque under a std::mutex and a std::condition_variable (the usual hand-made
// queue); boost::lockfree::queue; boost::asio::thread_pool.
#include <benchmark/benchmark.h>

#include <errno.h>
#include <semaphore.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/lockfree/queue.hpp>

#include "oxa_frame.h"
#include "oxa_lockfree.h"
#include "oxa_msgq.h"
#include "oxa_threadpoolflex.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kSlices = 5;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void WaitSem(sem_t* sem) {
  while (sem_wait(sem) != 0 && errno == EINTR) {
  }
}

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

// Runs `oxa` and `peer` (each returning seconds for `ops` operations) in alternating slices
// and reports the median rate of each and their ratio: the machine is shared, and the median
// keeps a slice that met a burst of foreign load from deciding the result.
template <class Oxa, class Peer>
void Compare(benchmark::State& state, double ops, const char* peer_name, Oxa oxa, Peer peer) {
  std::vector<double> oxa_rates;
  std::vector<double> peer_rates;
  for (auto _ : state) {
    for (int i = 0; i < kSlices; ++i) {
      oxa_rates.push_back(ops / oxa());
      peer_rates.push_back(ops / peer());
    }
  }
  const double oxa_rate = Median(oxa_rates);
  const double peer_rate = Median(peer_rates);
  state.counters["oxa_op/s"] = oxa_rate;
  state.counters[std::string(peer_name) + "_op/s"] = peer_rate;
  state.counters[std::string("oxa/") + peer_name] = oxa_rate / peer_rate;
}

// ---- Message queue: one producer, one consumer, 64-byte messages, a window in flight ----

constexpr int kMessages = 100000;
constexpr int kPayload = 64;

// The producer may be `window` messages ahead of the consumer; the same semaphore paces both
// queues.
struct Window {
  explicit Window(int slots) { sem_init(&free, 0, static_cast<unsigned int>(slots)); }
  ~Window() { sem_destroy(&free); }
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;
  sem_t free;
};

double RunMsgQ(OXA_MQ_HANDLE queue, int window_slots, int messages) {
  Window window(window_slots);
  const auto start = Clock::now();
  std::thread consumer([&] {
    OXA_MQ_MSG msg;
    for (int i = 0; i < messages; ++i) {
      msg.length = kPayload;
      if (OXA_MsgQReceiveEx(queue, &msg, 0xFFFFFFFFu) != 0) return;
      sem_post(&window.free);
    }
  });
  OXA_MQ_MSG msg;
  msg.type = 1;
  msg.priority = 0;
  msg.length = kPayload;
  memset(msg.data, 'x', kPayload);
  for (int i = 0; i < messages; ++i) {
    WaitSem(&window.free);
    OXA_MsgQSendEx(queue, &msg);
  }
  consumer.join();
  return SecondsSince(start);
}

struct Msg64 {
  unsigned int type;
  int priority;
  int length;
  char data[kPayload];
};

class CondDeque {
 public:
  void Push(const Msg64& msg) {
    {
      std::lock_guard<std::mutex> hold(mu_);
      queue_.push_back(msg);
    }
    cv_.notify_one();
  }
  Msg64 Pop() {
    std::unique_lock<std::mutex> hold(mu_);
    cv_.wait(hold, [&] { return !queue_.empty(); });
    Msg64 msg = queue_.front();
    queue_.pop_front();
    return msg;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<Msg64> queue_;
};

double RunCondDeque(int window_slots, int messages) {
  CondDeque queue;
  Window window(window_slots);
  const auto start = Clock::now();
  std::thread consumer([&] {
    for (int i = 0; i < messages; ++i) {
      const Msg64 msg = queue.Pop();
      benchmark::DoNotOptimize(msg.data[0]);
      sem_post(&window.free);
    }
  });
  Msg64 msg{1, 0, kPayload, {}};
  memset(msg.data, 'x', kPayload);
  for (int i = 0; i < messages; ++i) {
    WaitSem(&window.free);
    queue.Push(msg);
  }
  consumer.join();
  return SecondsSince(start);
}

void BM_MsgQ64B(benchmark::State& state) {
  const int window = static_cast<int>(state.range(0));
  const int messages = window == 1 ? kMessages / 4 : kMessages;
  OXA_Init();
  OXA_MQ_HANDLE queue = nullptr;
  if (OXA_MsgQCreateEx(&queue) != 0) {
    state.SkipWithError("no message queue");
    OXA_Fini();
    return;
  }
  Compare(
      state, messages, "deque", [&] { return RunMsgQ(queue, window, messages); },
      [&] { return RunCondDeque(window, messages); });
  OXA_MsgQDestroyEx(queue);
  OXA_Fini();
}
BENCHMARK(BM_MsgQ64B)->ArgName("in_flight")->Arg(1)->Arg(1024)->Iterations(1)->UseRealTime();

// ---- Lock-free queue: two producers, two consumers of small counted objects ----

constexpr int kPerProducer = 200000;
constexpr int kProducers = 2;
constexpr int kConsumers = 2;

class Small : public oxa::cobject {
 public:
  int value = 0;
};

// Two producers push their share of `objects`, two consumers pop until all arrived.
template <class Push, class Pop>
double RunTwoByTwo(Push push, Pop pop) {
  std::atomic<int> taken{0};
  std::vector<std::thread> threads;
  const auto start = Clock::now();
  for (int p = 0; p < kProducers; ++p) {
    threads.emplace_back([&, p] {
      for (int i = 0; i < kPerProducer; ++i)
        push(p * kPerProducer + i);
    });
  }
  for (int c = 0; c < kConsumers; ++c) {
    threads.emplace_back([&] {
      while (taken.load(std::memory_order_relaxed) < kProducers * kPerProducer) {
        if (pop()) {
          taken.fetch_add(1, std::memory_order_relaxed);
        } else {
          std::this_thread::yield();
        }
      }
    });
  }
  for (auto& t : threads)
    t.join();
  return SecondsSince(start);
}

// The objects exist before the run (allocation is not measured). Every producer fills its
// object before the push and every consumer reads it after the pop, as real users do, so each
// queue pays for moving the object's cache lines from one core to another.
void BM_LockFreeQueue2x2(benchmark::State& state) {
  std::vector<oxa::cshared_ptr<oxa::cobject>> objects;
  std::vector<Small*> raw;
  for (int i = 0; i < kProducers * kPerProducer; ++i) {
    auto* object = new Small;
    objects.emplace_back(object);
    raw.push_back(object);
  }
  std::atomic<long> checksum{0};
  const int peer = static_cast<int>(state.range(0));
  oxa::oxa_lockfreeQ oxa_queue;
  auto run_oxa = [&] {
    return RunTwoByTwo(
        [&](int i) {
          raw[static_cast<size_t>(i)]->value = i;
          oxa_queue.push_back(objects[static_cast<size_t>(i)]);
        },
        [&] {
          const oxa::cshared_ptr<oxa::cobject> object = oxa_queue.pop_front();
          if (!object) return false;
          checksum.fetch_add(static_cast<Small*>(object.get())->value, std::memory_order_relaxed);
          return true;
        });
  };
  if (peer == 0) {
    std::mutex mu;
    std::deque<Small*> queue;
    Compare(state, kProducers * kPerProducer, "deque", run_oxa, [&] {
      return RunTwoByTwo(
          [&](int i) {
            raw[static_cast<size_t>(i)]->value = i;
            std::lock_guard<std::mutex> hold(mu);
            queue.push_back(raw[static_cast<size_t>(i)]);
          },
          [&] {
            Small* object = nullptr;
            {
              std::lock_guard<std::mutex> hold(mu);
              if (queue.empty()) return false;
              object = queue.front();
              queue.pop_front();
            }
            checksum.fetch_add(object->value, std::memory_order_relaxed);
            return true;
          });
    });
  } else {
    boost::lockfree::queue<Small*> queue(1024);
    Compare(state, kProducers * kPerProducer, "boost", run_oxa, [&] {
      return RunTwoByTwo(
          [&](int i) {
            raw[static_cast<size_t>(i)]->value = i;
            queue.push(raw[static_cast<size_t>(i)]);
          },
          [&] {
            Small* object = nullptr;
            if (!queue.pop(object)) return false;
            checksum.fetch_add(object->value, std::memory_order_relaxed);
            return true;
          });
    });
  }
  benchmark::DoNotOptimize(checksum.load());
}
BENCHMARK(BM_LockFreeQueue2x2)->ArgName("peer_boost")->Arg(0)->Arg(1)->Iterations(1)->UseRealTime();

// ---- Flexible pool: one producer, two workers ----

constexpr int kFloodTasks = 500000;

struct Countdown {
  explicit Countdown(int n) : left(n) { sem_init(&done, 0, 0); }
  ~Countdown() { sem_destroy(&done); }
  Countdown(const Countdown&) = delete;
  Countdown& operator=(const Countdown&) = delete;
  void Tick() {
    if (left.fetch_sub(1) == 1) sem_post(&done);
  }
  std::atomic<int> left;
  sem_t done;
};

void TickCountdown(void* data) { static_cast<Countdown*>(data)->Tick(); }

double FloodOxa(OXA_THREADPOOLFLEX pool) {
  Countdown countdown(kFloodTasks);
  const auto start = Clock::now();
  for (int i = 0; i < kFloodTasks; ++i) {
    while (thrmgr_dispatch(pool, &countdown) != 1)
      std::this_thread::yield();  // queue full
  }
  WaitSem(&countdown.done);
  return SecondsSince(start);
}

double FloodAsio(boost::asio::thread_pool& pool) {
  Countdown countdown(kFloodTasks);
  const auto start = Clock::now();
  for (int i = 0; i < kFloodTasks; ++i) {
    boost::asio::post(pool, [&countdown] { countdown.Tick(); });
  }
  WaitSem(&countdown.done);
  return SecondsSince(start);
}

void BM_FlexPoolFlood(benchmark::State& state) {
  OXA_THREADPOOLFLEX oxa_pool = thrmgr_new(2, 1000, TickCountdown, 0);
  boost::asio::thread_pool asio_pool(2);
  Compare(
      state, kFloodTasks, "asio", [&] { return FloodOxa(oxa_pool); },
      [&] { return FloodAsio(asio_pool); });
  thrmgr_destroy(oxa_pool, -1);
  asio_pool.join();
}
BENCHMARK(BM_FlexPoolFlood)->Iterations(1)->UseRealTime();

// One task at a time: the time from the start of the submission to the start of the task.
constexpr int kSingleTasks = 10000;

struct Stamp {
  Stamp() { sem_init(&ran, 0, 0); }
  ~Stamp() { sem_destroy(&ran); }
  Stamp(const Stamp&) = delete;
  Stamp& operator=(const Stamp&) = delete;
  Clock::time_point started;
  sem_t ran;
};

void MarkStarted(void* data) {
  auto* stamp = static_cast<Stamp*>(data);
  stamp->started = Clock::now();
  sem_post(&stamp->ran);
}

template <class Submit>
double MedianMicros(Submit submit) {
  Stamp stamp;
  std::vector<double> micros;
  micros.reserve(kSingleTasks);
  for (int i = 0; i < kSingleTasks; ++i) {
    const auto submitted = Clock::now();
    submit(&stamp);
    WaitSem(&stamp.ran);
    micros.push_back(std::chrono::duration<double, std::micro>(stamp.started - submitted).count());
  }
  return Median(micros);
}

void BM_FlexPoolSubmitToRunP50(benchmark::State& state) {
  OXA_THREADPOOLFLEX oxa_pool = thrmgr_new(2, 1000, MarkStarted, 0);
  boost::asio::thread_pool asio_pool(2);
  std::vector<double> oxa_us;
  std::vector<double> asio_us;
  for (auto _ : state) {
    for (int i = 0; i < kSlices; ++i) {
      oxa_us.push_back(MedianMicros([&](Stamp* stamp) { thrmgr_dispatch(oxa_pool, stamp); }));
      asio_us.push_back(MedianMicros(
          [&](Stamp* stamp) { boost::asio::post(asio_pool, [stamp] { MarkStarted(stamp); }); }));
    }
  }
  state.counters["oxa_p50_us"] = Median(oxa_us);
  state.counters["asio_p50_us"] = Median(asio_us);
  state.counters["asio/oxa"] = Median(asio_us) / Median(oxa_us);
  thrmgr_destroy(oxa_pool, -1);
  asio_pool.join();
}
BENCHMARK(BM_FlexPoolSubmitToRunP50)->Iterations(1)->UseRealTime();

}  // namespace
