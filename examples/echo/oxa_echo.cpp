// oxa_echo: an echo server and a load client built on completion queues, for loopback.
//
//   oxa_echo server [port [seconds [workers]]]
//   oxa_echo client host port clients msg_size seconds [workers [in_flight]]
//   oxa_echo selftest clients msg_size seconds [workers [in_flight]]
//
// The server echoes on 127.0.0.1 (port 0: a free one, printed) for `seconds` (default 60) or
// until SIGINT or SIGTERM. The client keeps `clients` connections busy for `seconds`, with
// in_flight messages (default 1) of msg_size bytes on their way on each, compares every byte
// that comes back and prints round trips per second, their latency and MB/s. selftest runs both in
// this process on a free port. workers is the number of completion-queue workers of each queue, 0
// or absent for the library's default. Exit status: 0 when every byte came back right, 1 on a
// mismatch, an error or a time-out, 2 on bad arguments.
#include <signal.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "oxa_addr.h"
#include "oxa_aio.h"
#include "oxa_frame.h"
#include "oxa_sysinfo.h"

#include "echo_client.h"
#include "echo_server.h"

namespace {

constexpr int kMaxSeconds = 3600;
constexpr int kMaxWorkers = 256;

int Usage() {
  std::fprintf(stderr,
               "usage: oxa_echo server [port [seconds [workers]]]\n"
               "       oxa_echo client host port clients msg_size seconds [workers [in_flight]]\n"
               "       oxa_echo selftest clients msg_size seconds [workers [in_flight]]\n"
               "clients 1-%d, msg_size 1-%d bytes, seconds 1-%d, workers 0-%d (0: default),\n"
               "in_flight 1-%d\n",
               oxa_echo::kMaxClients, oxa_echo::kMaxMessageBytes, kMaxSeconds, kMaxWorkers,
               oxa_echo::kMaxInFlight);
  return 2;
}

// A whole decimal number within [low, high].
bool ParseInt(const char* text, int low, int high, int* value) {
  char* end = nullptr;
  errno = 0;
  const long parsed = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || parsed < low || parsed > high) return false;
  *value = static_cast<int>(parsed);
  return true;
}

// The remaining arguments from `first` on, as `count` numbers within their ranges; optional
// ones past argc keep their defaults.
struct Range {
  int low;
  int high;
  int* value;
};

bool ParseAll(int argc, char** argv, int first, int required, const Range* ranges, int count) {
  if (argc < first + required || argc > first + count) return false;
  for (int i = 0; first + i < argc; ++i) {
    if (!ParseInt(argv[first + i], ranges[i].low, ranges[i].high, ranges[i].value)) return false;
  }
  return true;
}

void PrintWorkers(int workers) {
  if (workers > 0) {
    std::printf("  workers       %d per queue\n", workers);
  } else {
    std::printf("  workers       %d per queue (the default, (processors + 1) x 2)\n",
                (OXA_GetCPUNumber() + 1) * 2);
  }
}

// Prints the client's figures; true when the run passed.
bool Report(const oxa_echo::LoadResult& r) {
  std::printf("  round trips   %llu in %.2f s: %.0f per second", (unsigned long long)r.round_trips,
              r.seconds, r.RoundTripsPerSecond());
  if (r.round_trips > 0) {
    std::printf(", mean %.0f us each", r.seconds * 1e6 * r.clients / r.round_trips);
  }
  if (r.round_trips > 0) {
    std::printf("\n  latency       p50 %.0f us, p99 %.0f us; slowest connection %llu round trips",
                r.latency.Percentile(0.5), r.latency.Percentile(0.99),
                (unsigned long long)r.fewest_round_trips);
  }
  std::printf("\n  payload       %.1f MB/s each way, %.1f MB compared byte by byte\n",
              r.MegabytesPerSecond(), r.verified_bytes / 1e6);
  if (r.ok) {
    std::printf("  result        OK: every byte came back as sent\n");
  } else {
    std::printf("  result        FAILED: %s\n", r.error.c_str());
  }
  return r.ok;
}

int RunServer(int argc, char** argv) {
  int port = 0;
  int seconds = 60;
  int workers = 0;
  const Range ranges[] = {
      {0, 65535, &port}, {1, kMaxSeconds, &seconds}, {0, kMaxWorkers, &workers}};
  if (!ParseAll(argc, argv, 2, 0, ranges, 3)) return Usage();
  // Blocked before any thread starts, so that every thread inherits the mask and the signals
  // wait for sigtimedwait below.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  oxa_echo::EchoServer server;
  if (!server.Start(static_cast<unsigned short>(port), workers)) return 1;
  std::printf("echo server on 127.0.0.1 port %u for %d s (SIGINT or SIGTERM stops it)\n",
              server.port(), seconds);
  PrintWorkers(workers);
  std::fflush(stdout);
  timespec left{seconds, 0};
  int signal_number = -1;
  do {
    signal_number = sigtimedwait(&stop_signals, nullptr, &left);
  } while (signal_number == -1 && errno == EINTR);
  server.Stop();
  std::printf("%s: %llu connections accepted, %.1f MB echoed\n",
              signal_number == -1 ? "time is up" : "stopped by a signal",
              (unsigned long long)server.accepted(), server.echoed_bytes() / 1e6);
  return server.failures() == 0 ? 0 : 1;
}

int RunClient(int argc, char** argv) {
  int port = 0;
  int clients = 0;
  int size = 0;
  int seconds = 0;
  int workers = 0;
  int in_flight = 1;
  const Range ranges[] = {{1, 65535, &port},
                          {1, oxa_echo::kMaxClients, &clients},
                          {1, oxa_echo::kMaxMessageBytes, &size},
                          {1, kMaxSeconds, &seconds},
                          {0, kMaxWorkers, &workers},
                          {1, oxa_echo::kMaxInFlight, &in_flight}};
  if (!ParseAll(argc, argv, 3, 4, ranges, 6)) return Usage();
  const char* host = argv[2];
  OXA_ADDR_T server;
  const int family = std::strchr(host, ':') != nullptr ? 10 : 2;
  if (OXA_MakeAddrByString(family, host, static_cast<unsigned short>(port), &server) != 0) {
    std::fprintf(stderr, "oxa_echo: not an address: %s\n", host);
    return 2;
  }
  void* queue = oxa_echo::MakeQueue(workers);
  if (!oxa_echo::IsQueue(queue)) {
    std::fprintf(stderr, "oxa_echo: cannot create a completion queue\n");
    return 1;
  }
  std::printf("echo client: %d connection%s x %d bytes for %d s to %s port %d\n", clients,
              clients == 1 ? "" : "s", size, seconds, host, port);
  PrintWorkers(workers);
  std::fflush(stdout);
  const oxa_echo::LoadResult result =
      oxa_echo::LoadRun::Run(queue, server, clients, size, seconds, in_flight);
  OXA_AsyncIO_DestroyQueueEx(queue);
  return Report(result) ? 0 : 1;
}

int RunSelftest(int argc, char** argv) {
  int clients = 0;
  int size = 0;
  int seconds = 0;
  int workers = 0;
  int in_flight = 1;
  const Range ranges[] = {{1, oxa_echo::kMaxClients, &clients},
                          {1, oxa_echo::kMaxMessageBytes, &size},
                          {1, kMaxSeconds, &seconds},
                          {0, kMaxWorkers, &workers},
                          {1, oxa_echo::kMaxInFlight, &in_flight}};
  if (!ParseAll(argc, argv, 2, 3, ranges, 5)) return Usage();
  oxa_echo::EchoServer server;
  if (!server.Start(0, workers)) return 1;
  OXA_ADDR_T where;
  OXA_MakeAddrByString(2, "127.0.0.1", server.port(), &where);
  void* queue = oxa_echo::MakeQueue(workers);
  if (!oxa_echo::IsQueue(queue)) {
    std::fprintf(stderr, "oxa_echo: cannot create a completion queue\n");
    return 1;
  }
  std::printf("echo selftest: %d connection%s x %d bytes for %d s on 127.0.0.1 port %u\n", clients,
              clients == 1 ? "" : "s", size, seconds, server.port());
  PrintWorkers(workers);
  std::fflush(stdout);
  const oxa_echo::LoadResult result =
      oxa_echo::LoadRun::Run(queue, where, clients, size, seconds, in_flight);
  OXA_AsyncIO_DestroyQueueEx(queue);
  server.Stop();  // after the client has closed its side, so the server saw every byte
  std::printf("  server        %llu connection%s accepted, %.1f MB echoed\n",
              (unsigned long long)server.accepted(), server.accepted() == 1 ? "" : "s",
              server.echoed_bytes() / 1e6);
  bool ok = Report(result);
  // On success every echoed byte was compared; a surplus would be an echo nobody asked for.
  if (ok && (server.accepted() != static_cast<uint64_t>(clients) ||
             server.echoed_bytes() != result.verified_bytes || server.failures() != 0)) {
    std::printf("  result        FAILED: the server's counts do not match the client's\n");
    ok = false;
  }
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage();
  int (*mode)(int, char**) = nullptr;
  if (std::strcmp(argv[1], "server") == 0) mode = RunServer;
  if (std::strcmp(argv[1], "client") == 0) mode = RunClient;
  if (std::strcmp(argv[1], "selftest") == 0) mode = RunSelftest;
  if (mode == nullptr) return Usage();
  if (OXA_Init() != 0) {
    std::fprintf(stderr, "oxa_echo: the library did not start\n");
    return 1;
  }
  const int status = mode(argc, argv);
  OXA_Fini();
  return status;
}
