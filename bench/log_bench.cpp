// The log service against two peers on one workload: four threads write 200,000 lines of
// about 100 bytes to files, and the run ends when every line is on disk (the lines are
// counted there). Peers: fprintf to one FILE* under a mutex, with the same prefix formed in
// the same call, and, where the package is installed, an asynchronous logger of wide use
// (spdlog, asynchronous mode, one worker, blocking when its queue is full). A WriteLog refused
// with -4 (staging buffer full) is retried and counted. The *CallCost benchmarks time each
// call on the caller's side and report the median and the 99th percentile.
#include <benchmark/benchmark.h>

#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "oxa_log.h"

#ifdef OXA_BENCH_HAVE_SPDLOG
#include <spdlog/async.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

constexpr int kThreads = 4;
constexpr int kLines = 200000;
constexpr int kPerThread = kLines / kThreads;
// With a prefix of about 52 bytes, a line of about 100 bytes.
constexpr char kPadding[] = "payload payload payload payld";

using Clock = std::chrono::steady_clock;

// A scratch folder for one run; every file in it is deleted before and after.
class Scratch {
 public:
  Scratch() {
    char pattern[] = "/tmp/oxa_bench_XXXXXX";
    path_ = mkdtemp(pattern);
  }
  ~Scratch() {
    Clean();
    rmdir(path_.c_str());
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  const std::string& path() const { return path_; }

  // Lines in every file of the folder.
  int64_t CountLines() const {
    int64_t lines = 0;
    ForEachFile([&](const std::string& file) {
      std::ifstream in(file, std::ios::binary);
      lines += std::count(std::istreambuf_iterator<char>(in), {}, '\n');
    });
    return lines;
  }
  void Clean() const {
    ForEachFile([](const std::string& file) { remove(file.c_str()); });
  }

 private:
  template <class Visit>
  void ForEachFile(Visit visit) const {
    DIR* dir = opendir(path_.c_str());
    if (dir == nullptr) return;
    while (const dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') visit(path_ + "/" + entry->d_name);
    }
    closedir(dir);
  }

  std::string path_;
};

// Local time of the current second, cached per thread as the log service does.
const tm& LocalNow() {
  thread_local time_t second = -1;
  thread_local tm fields{};
  const time_t now = time(nullptr);
  if (now != second) {
    localtime_r(&now, &fields);
    second = now;
  }
  return fields;
}

// One writer's share: `write(thread, index)` kPerThread times; with `costs`, the caller-side
// duration of each call is kept (in nanoseconds).
template <class Write>
void WriteShare(Write& write, int thread, std::vector<int64_t>* costs) {
  for (int i = 0; i < kPerThread; ++i) {
    if (costs == nullptr) {
      write(thread, i);
      continue;
    }
    const auto start = Clock::now();
    write(thread, i);
    costs->push_back(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
  }
}

// Runs every writer's share on kThreads threads at once; with `costs`, all call durations.
template <class Write>
void RunWriters(Write write, std::vector<int64_t>* costs) {
  std::vector<std::vector<int64_t>> per_thread(kThreads);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    std::vector<int64_t>* mine = costs != nullptr ? &per_thread[static_cast<size_t>(t)] : nullptr;
    if (mine != nullptr) mine->reserve(kPerThread);
    threads.emplace_back([&write, t, mine] { WriteShare(write, t, mine); });
  }
  for (std::thread& thread : threads)
    thread.join();
  if (costs == nullptr) return;
  for (const auto& mine : per_thread)
    costs->insert(costs->end(), mine.begin(), mine.end());
}

void ReportCosts(benchmark::State& state, std::vector<int64_t>* costs) {
  if (costs->empty()) return;
  std::sort(costs->begin(), costs->end());
  state.counters["p50_ns"] = static_cast<double>((*costs)[costs->size() / 2]);
  state.counters["p99_ns"] = static_cast<double>((*costs)[costs->size() * 99 / 100]);
}

void ReportLines(benchmark::State& state, int64_t on_disk, int64_t retries) {
  state.counters["lines_on_disk"] = static_cast<double>(on_disk);
  state.counters["retries"] = static_cast<double>(retries);
  state.counters["lines_per_s"] = benchmark::Counter(static_cast<double>(on_disk),
                                                     benchmark::Counter::kIsIterationInvariantRate);
  if (on_disk != kLines) state.SkipWithError("lines lost");
}

// Times `run_once(folder, costs)` per iteration, then counts the lines on disk with the clock
// stopped. run_once returns how many times a line had to be retried.
template <class RunOnce>
void Measure(benchmark::State& state, bool timed, RunOnce run_once) {
  Scratch scratch;
  std::vector<int64_t> costs;
  int64_t on_disk = 0;
  int64_t retries = 0;
  for (auto _ : state) {
    retries += run_once(scratch.path(), timed ? &costs : nullptr);
    state.PauseTiming();
    on_disk = scratch.CountLines();
    scratch.Clean();
    state.ResumeTiming();
  }
  ReportLines(state, on_disk, retries / static_cast<int64_t>(state.iterations()));
  ReportCosts(state, &costs);
}

int64_t LogServiceOnce(const std::string& folder, std::vector<int64_t>* costs) {
  std::atomic<int64_t> retries{0};
  EnableTarget(OXA_LOG_TO_FILES, folder.c_str(), 0, 0);
  RunWriters(
      [&](int t, int i) {
        while (WriteLog(OXA_LOG_INF, __FILE__, __LINE__, "thread %d line %06d %s", t, i,
                        kPadding) == OXA_LOG_QUEUE_FULL) {
          retries.fetch_add(1, std::memory_order_relaxed);
          std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
      },
      costs);
  StopLogService(false);  // every queued line written before the clock stops
  return retries.load();
}

int64_t FprintfOnce(const std::string& folder, std::vector<int64_t>* costs) {
  FILE* file = fopen((folder + "/fprintf.log").c_str(), "we");
  std::mutex mutex;
  RunWriters(
      [&](int t, int i) {
        const tm& now = LocalNow();
        std::lock_guard<std::mutex> hold(mutex);
        fprintf(file,
                "[%04u-%02u-%02u %02u:%02u:%02u.000][INF][FILE:%s][LINE:%d] thread %d line "
                "%06d %s\r\n",
                now.tm_year + 1900, now.tm_mon + 1, now.tm_mday, now.tm_hour, now.tm_min,
                now.tm_sec, "log_bench.cpp", __LINE__, t, i, kPadding);
      },
      costs);
  fclose(file);
  return 0;
}

void LogServiceRun(benchmark::State& state, bool timed) { Measure(state, timed, LogServiceOnce); }
void FprintfRun(benchmark::State& state, bool timed) { Measure(state, timed, FprintfOnce); }

void BM_LogService(benchmark::State& state) { LogServiceRun(state, false); }
BENCHMARK(BM_LogService)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_FprintfUnderMutex(benchmark::State& state) { FprintfRun(state, false); }
BENCHMARK(BM_FprintfUnderMutex)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_LogServiceCallCost(benchmark::State& state) { LogServiceRun(state, true); }
BENCHMARK(BM_LogServiceCallCost)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_FprintfUnderMutexCallCost(benchmark::State& state) { FprintfRun(state, true); }
BENCHMARK(BM_FprintfUnderMutexCallCost)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

#ifdef OXA_BENCH_HAVE_SPDLOG
int64_t SpdlogOnce(const std::string& folder, std::vector<int64_t>* costs) {
  spdlog::init_thread_pool(8192, 1);
  auto logger = spdlog::create_async<spdlog::sinks::basic_file_sink_mt>(
      "bench", folder + "/spdlog.log", true);
  logger->set_formatter(std::make_unique<spdlog::pattern_formatter>(
      "[%Y-%m-%d %H:%M:%S.000][INF][FILE:%s][LINE:%#] %v", spdlog::pattern_time_type::local,
      "\r\n"));
  RunWriters(
      [&](int t, int i) { SPDLOG_LOGGER_INFO(logger, "thread {} line {:06d} {}", t, i, kPadding); },
      costs);
  logger.reset();
  spdlog::shutdown();  // drains the queue and closes the file
  return 0;
}

void SpdlogRun(benchmark::State& state, bool timed) { Measure(state, timed, SpdlogOnce); }

void BM_SpdlogAsync(benchmark::State& state) { SpdlogRun(state, false); }
BENCHMARK(BM_SpdlogAsync)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_SpdlogAsyncCallCost(benchmark::State& state) { SpdlogRun(state, true); }
BENCHMARK(BM_SpdlogAsyncCallCost)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
#endif

}  // namespace
