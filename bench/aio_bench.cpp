// Echo on loopback: the completion-queue echo server of examples/echo against a minimal
// edge-triggered epoll echo server (the practical limit of one process) and, where the build
// found libuv, a libuv echo server. One load client, the example's on its own completion
// queue, drives all of them with every byte compared.
//
// Placement decides results on a small machine, so it is fixed: each server runs in a child
// process pinned to one CPU, the client on another. The servers take turns round by round
// (the order rotating), each round a short slice of load; a configuration reports the median
// round trips per second and p99 round trip of each server with their spread, and the ratios
// to epoll. The last benchmark sums the grid up: geometric mean and lowest ratio.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "oxa_addr.h"
#include "oxa_aio.h"

#include "../examples/echo/echo_client.h"
#include "../examples/echo/echo_server.h"
#include "epoll_echo_server.h"
#include "side_by_side.h"
#ifdef OXA_BENCH_HAVE_UV
#include "uv_echo_server.h"
#endif

namespace {

constexpr int kRounds = 3;
constexpr double kSliceSeconds = 0.4;
constexpr int kServerThreads = 2;  // liboxa workers, and epoll threads
constexpr int kClientWorkers = 2;

enum ServerKind { kOxa, kEpoll, kUv };
const char* const kServerNames[] = {"oxa", "epoll", "uv"};

// A server in a child process pinned to the first CPU. The child reports its port through a
// pipe and runs until the parent closes the other pipe (or dies).
class ServerProcess {
 public:
  explicit ServerProcess(ServerKind kind) {
    int port_pipe[2];
    int stop_pipe[2];
    if (pipe(port_pipe) != 0) return;
    if (pipe(stop_pipe) != 0) {
      close(port_pipe[0]);
      close(port_pipe[1]);
      return;
    }
    pid_ = fork();
    if (pid_ == 0) {
      close(port_pipe[0]);
      close(stop_pipe[1]);
      _exit(Serve(kind, port_pipe[1], stop_pipe[0]));
    }
    close(port_pipe[1]);
    close(stop_pipe[0]);
    stop_fd_ = stop_pipe[1];
    unsigned short port = 0;
    if (pid_ > 0 && read(port_pipe[0], &port, sizeof port) == sizeof port) port_ = port;
    close(port_pipe[0]);
  }
  ~ServerProcess() {
    if (stop_fd_ != -1) close(stop_fd_);
    if (pid_ > 0) {
      int status = 0;
      waitpid(pid_, &status, 0);
    }
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  unsigned short port() const { return port_; }

 private:
  template <typename Server>
  static int RunUntilClosed(Server* server, int port_fd, int stop_fd) {
    const unsigned short port = server->port();
    if (write(port_fd, &port, sizeof port) != sizeof port) return 1;
    char byte;
    while (read(stop_fd, &byte, 1) != 0 && errno == EINTR) {
    }
    server->Stop();
    return 0;
  }

  static int Serve(ServerKind kind, int port_fd, int stop_fd) {
    oxa_bench::PinTo(oxa_bench::NthCpu(0));  // the server's threads inherit it
    if (kind == kOxa) {
      oxa_echo::EchoServer server;
      if (!server.Start(0, kServerThreads)) return 1;
      return RunUntilClosed(&server, port_fd, stop_fd);
    }
    if (kind == kEpoll) {
      oxa_bench::EpollEchoServer server;
      if (!server.Start(kServerThreads)) return 1;
      return RunUntilClosed(&server, port_fd, stop_fd);
    }
#ifdef OXA_BENCH_HAVE_UV
    oxa_bench::UvEchoServer server;
    if (!server.Start()) return 1;
    return RunUntilClosed(&server, port_fd, stop_fd);
#else
    return 1;
#endif
  }

  pid_t pid_ = -1;
  int stop_fd_ = -1;
  unsigned short port_ = 0;
};

// The servers, started once (before the client makes any thread) and kept for all
// configurations; the idle ones wait in epoll.
std::vector<ServerProcess*>& Servers() {
  static std::vector<ServerProcess*> servers = [] {
    std::vector<ServerProcess*> made;
    made.push_back(new ServerProcess(kOxa));
    made.push_back(new ServerProcess(kEpoll));
#ifdef OXA_BENCH_HAVE_UV
    made.push_back(new ServerProcess(kUv));
#endif
    return made;
  }();
  return servers;
}

// Newest first: a child inherited the stop pipes of the servers started before it, and a
// server sees the end of its pipe only once every copy of the write end is closed.
void StopServers() {
  std::vector<ServerProcess*>& servers = Servers();
  for (auto it = servers.rbegin(); it != servers.rend(); ++it)
    delete *it;
  servers.clear();
}

// Ratios to epoll of every configuration, for the summary.
struct GridRatios {
  std::vector<double> throughput[3];
  std::vector<double> p99[3];
};
GridRatios& Grid() {
  static GridRatios grid;
  return grid;
}

void BM_Echo(benchmark::State& state) {
  const int clients = static_cast<int>(state.range(0));
  const int size = static_cast<int>(state.range(1));
  const int in_flight = static_cast<int>(state.range(2));
  std::vector<ServerProcess*>& servers = Servers();
  const int count = static_cast<int>(servers.size());
  for (ServerProcess* s : servers) {
    if (s->port() == 0) {
      state.SkipWithError("a server did not start");
      return;
    }
  }
  oxa_bench::Samples rate[3];
  oxa_bench::Samples p99[3];
  static std::string failure;  // SkipWithError keeps the pointer
  for (auto _ : state) {
    oxa_bench::ScopedPin pin(oxa_bench::NthCpu(1));  // the client's workers start here
    void* queue = oxa_echo::MakeQueue(kClientWorkers);
    if (!oxa_echo::IsQueue(queue)) {
      state.SkipWithError("cannot create the client's queue");
      return;
    }
    oxa_bench::Interleave(kRounds, count, [&](int who, int) {
      OXA_ADDR_T where;
      OXA_MakeAddrByString(2, "127.0.0.1", servers[who]->port(), &where);
      const oxa_echo::LoadResult r =
          oxa_echo::LoadRun::Run(queue, where, clients, size, kSliceSeconds, in_flight);
      if (!r.ok) {
        failure = std::string(kServerNames[who]) + ": " + r.error;
        return false;
      }
      rate[who].values.push_back(r.RoundTripsPerSecond());
      p99[who].values.push_back(r.latency.Percentile(0.99));
      return true;
    });
    OXA_AsyncIO_DestroyQueueEx(queue);
  }
  if (!failure.empty()) {
    state.SkipWithError(failure.c_str());
    return;
  }
  for (int k = 0; k < count; ++k) {
    oxa_bench::Report(state, std::string(kServerNames[k]) + "_rt/s", rate[k]);
    state.counters[std::string(kServerNames[k]) + "_p99us"] = p99[k].Median();
    if (k == kEpoll) continue;
    const double ratio = rate[k].Median() / rate[kEpoll].Median();
    const double p99_ratio = p99[k].Median() / p99[kEpoll].Median();
    state.counters[std::string(kServerNames[k]) + "/epoll"] = ratio;
    state.counters[std::string(kServerNames[k]) + "_p99/epoll"] = p99_ratio;
    Grid().throughput[k].push_back(ratio);
    Grid().p99[k].push_back(p99_ratio);
  }
}

BENCHMARK(BM_Echo)
    ->ArgNames({"conns", "bytes", "inflight"})
    ->ArgsProduct({{1, 16, 128}, {64, 4096, 65536}, {1, 8}})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kSecond);

double GeometricMean(const std::vector<double>& v) {
  double log_sum = 0;
  for (double x : v)
    log_sum += std::log(x);
  return v.empty() ? 0 : std::exp(log_sum / v.size());
}

// The grid in four figures per server: geometric mean and lowest of the throughput ratios to
// epoll, and highest p99 ratio. Ends the server processes.
void BM_EchoSummary(benchmark::State& state) {
  for (auto _ : state) {
  }
  for (int k : {kOxa, kUv}) {
    const std::vector<double>& t = Grid().throughput[k];
    const std::vector<double>& p = Grid().p99[k];
    if (t.empty()) continue;
    const std::string name = kServerNames[k];
    state.counters[name + "/epoll_geomean"] = GeometricMean(t);
    state.counters[name + "/epoll_lowest"] = *std::min_element(t.begin(), t.end());
    state.counters[name + "_p99/epoll_highest"] = *std::max_element(p.begin(), p.end());
  }
  StopServers();
}
BENCHMARK(BM_EchoSummary)->Iterations(1);

}  // namespace
