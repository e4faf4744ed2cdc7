// Address text: OXA_InetPton and OXA_InetNtop against the system's inet_pton and inet_ntop, for
// IPv4 and IPv6. Each benchmark cycles through the same few addresses, and first checks that
// both sides agree on them, so the figures compare equal work.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "oxa_addr.h"

#include "side_by_side.h"

namespace {

constexpr size_t kAddresses = 4;

const char* const kIpv4Text[kAddresses] = {"127.0.0.1", "192.0.2.2", "10.250.3.17",
                                           "255.255.255.0"};
// Ordinary unicast forms only: the library prints IPv4-compatible and -mapped addresses as a
// bare dotted quad, which the system does not, so those would not compare equal work.
const char* const kIpv6Text[kAddresses] = {"::1", "fe80::fc:ff:fe00:1",
                                           "2001:db8:85a3::8a2e:370:7334", "fd00:1:2:3:4:5:6:7"};

constexpr int kTextRoom = INET6_ADDRSTRLEN;

// The sample addresses of one family, as text and as the system parses them (an IPv4 address
// in the first 4 bytes of its row).
struct Samples {
  explicit Samples(int af) : family(af), text(af == AF_INET ? kIpv4Text : kIpv6Text) {
    std::memset(bytes, 0, sizeof bytes);
    for (size_t i = 0; i < kAddresses; ++i)
      inet_pton(family, text[i], bytes[i]);
  }

  // True when the library reads and prints every sample as the system does.
  bool LibraryAgrees() const {
    const size_t size = family == AF_INET ? 4 : 16;
    for (size_t i = 0; i < kAddresses; ++i) {
      unsigned char parsed[16] = {};
      char printed[kTextRoom] = {};
      if (OXA_InetPton(text[i], parsed) != 0 || std::memcmp(parsed, bytes[i], size) != 0)
        return false;
      if (OXA_InetNtop(family, bytes[i], printed, kTextRoom) == nullptr ||
          std::strcmp(printed, text[i]) != 0)
        return false;
    }
    return true;
  }

  int family;
  const char* const* text;
  unsigned char bytes[kAddresses][16];
};

constexpr int kRounds = 7;
constexpr long kParsesPerRound = 200000;

// Text to address, the library and the system taking turns round by round over the same
// samples. Counters: the median cost of a parse of each (ns), its spread, and the ratio of
// the rates, liboxa / system (1.0: as fast as inet_pton).
void BM_InetPton(benchmark::State& state, int family) {
  const Samples samples(family);
  if (!samples.LibraryAgrees()) {
    state.SkipWithError("library and system disagree on the sample addresses");
    return;
  }
  oxa_bench::Samples oxa_ns;
  oxa_bench::Samples sys_ns;
  unsigned char out[16];
  for (auto _ : state) {
    oxa_bench::Interleave(kRounds, 2, [&](int who, int) {
      if (who == 0) {
        oxa_ns.values.push_back(oxa_bench::NanosPerCall(kParsesPerRound, [&](long i) {
          benchmark::DoNotOptimize(OXA_InetPton(samples.text[i % kAddresses], out));
          benchmark::ClobberMemory();
        }));
      } else {
        sys_ns.values.push_back(oxa_bench::NanosPerCall(kParsesPerRound, [&](long i) {
          benchmark::DoNotOptimize(inet_pton(family, samples.text[i % kAddresses], out));
          benchmark::ClobberMemory();
        }));
      }
      return true;
    });
  }
  oxa_bench::Report(state, "oxa_ns", oxa_ns);
  oxa_bench::Report(state, "inet_pton_ns", sys_ns);
  state.counters["oxa/inet_pton"] = sys_ns.Median() / oxa_ns.Median();
}

void BM_OxaInetNtop(benchmark::State& state, int family) {
  const Samples samples(family);
  if (!samples.LibraryAgrees()) {
    state.SkipWithError("library and system disagree on the sample addresses");
    return;
  }
  char text[kTextRoom];
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(OXA_InetNtop(family, samples.bytes[i], text, kTextRoom));
    benchmark::ClobberMemory();
    i = (i + 1) % kAddresses;
  }
}

void BM_SystemInetNtop(benchmark::State& state, int family) {
  const Samples samples(family);
  char text[kTextRoom];
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(inet_ntop(family, samples.bytes[i], text, kTextRoom));
    benchmark::ClobberMemory();
    i = (i + 1) % kAddresses;
  }
}

BENCHMARK_CAPTURE(BM_InetPton, ipv4, AF_INET)->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(BM_InetPton, ipv6, AF_INET6)->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(BM_OxaInetNtop, ipv4, AF_INET);
BENCHMARK_CAPTURE(BM_SystemInetNtop, ipv4, AF_INET);
BENCHMARK_CAPTURE(BM_OxaInetNtop, ipv6, AF_INET6);
BENCHMARK_CAPTURE(BM_SystemInetNtop, ipv6, AF_INET6);

}  // namespace
