#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "oxa_sysinfo.h"
#include "oxa_time.h"

#include "support/test_support.h"
#include "util/proc_parse.h"

namespace {

using oxa::internal::ParseCpuTimes;
using oxa::internal::ParseMemoryStatus;

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "expected texts assume little endian");

// A read-only stdio stream over prepared text, closed at the end of the full expression.
std::unique_ptr<FILE, int (*)(FILE*)> Text(const std::string& text) {
  return {fmemopen(const_cast<char*>(text.data()), text.size(), "r"), fclose};
}

// Prepared "/proc/meminfo" text parsed; all ones when parsing fails.
OXA_MEMORY_STATUS ParseMeminfo(const std::string& text) {
  OXA_MEMORY_STATUS status{};
  if (ParseMemoryStatus(Text(text).get(), &status) != 0) memset(&status, 0xFF, sizeof status);
  return status;
}

// user nice system idle iowait irq softirq of every processor line of "/proc/stat".
std::vector<std::vector<oxa_uint64>> ReadCpuLines() {
  std::ifstream stat("/proc/stat");
  std::vector<std::vector<oxa_uint64>> cpus;
  std::string line;
  std::getline(stat, line);  // the sum over all processors
  while (std::getline(stat, line) && line.compare(0, 3, "cpu") == 0) {
    std::istringstream fields(line.substr(line.find(' ')));
    cpus.emplace_back(7);
    for (oxa_uint64& value : cpus.back())
      fields >> value;
  }
  return cpus;
}

TEST(SysInfo, SleepsRandZeroMemoryAndProcessorCount) {
  oxa_test::Stopwatch ms_watch;
  EXPECT_EQ(0, OXA_Sleep(40));
  EXPECT_GE(ms_watch.Elapsed().count(), 40);
  EXPECT_LT(ms_watch.Elapsed().count(), 3000);
  oxa_test::Stopwatch us_watch;
  EXPECT_EQ(0, OXA_USleep(20000));
  EXPECT_GE(us_watch.Elapsed().count(), 20);
  EXPECT_LT(us_watch.Elapsed().count(), 3000);

  // Reseeded with the tick on every call: within one millisecond the same number, always.
  bool compared = false;
  for (int attempt = 0; attempt < 100 && !compared; ++attempt) {
    const unsigned int tick = OXA_GetTimeTick();
    const long value = OXA_Rand();
    if (OXA_GetTimeTick() != tick) continue;  // crossed a millisecond: the seed is unknown
    srandom(tick);
    EXPECT_EQ(random(), value);
    compared = true;
  }
  EXPECT_TRUE(compared);

  unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(bytes, OXA_ZeroMemory(bytes, 5));
  EXPECT_EQ(0, memcmp("\0\0\0\0\0\6\7\10", bytes, sizeof bytes));
  EXPECT_EQ(nullptr, OXA_ZeroMemory(nullptr, 5));
  EXPECT_EQ(sysconf(_SC_NPROCESSORS_CONF), OXA_GetCPUNumber());  // configured, not online
}

TEST(SysInfo, CpuPerformanceAsksForItsSizeThenMatchesProcStat) {
  const unsigned int cpus = static_cast<unsigned int>(OXA_GetCPUNumber());
  unsigned int size = 0;
  EXPECT_EQ(-1, OXA_GetCPUPerformance(nullptr, &size));
  EXPECT_EQ(56 * cpus, size);
  EXPECT_EQ(-1, OXA_GetCPUPerformance(nullptr, &size));  // room enough, but no records
  EXPECT_EQ(-1, OXA_GetCPUPerformance(nullptr, nullptr));
  std::vector<OXA_CPU_TIMES> records(cpus);
  for (OXA_CPU_TIMES& record : records)
    record.uReserved1 = record.uReserved2 = 77;
  const auto before = ReadCpuLines();
  ASSERT_EQ(0, OXA_GetCPUPerformance(records.data(), &size));
  const auto after = ReadCpuLines();
  ASSERT_TRUE(before.size() >= cpus && after.size() >= cpus);
  auto in_range = [](oxa_uint64 value, oxa_uint64 low, oxa_uint64 high, oxa_uint64 slack) {
    return value + slack >= low && value <= high + slack;
  };
  constexpr oxa_uint64 kIdleSlack = 200;  // idle and iowait may step back a little on nohz
  for (unsigned int i = 0; i < cpus; ++i) {
    const auto& b = before[i];
    const auto& a = after[i];
    const OXA_CPU_TIMES& r = records[i];
    EXPECT_TRUE(in_range(r.uUser, b[0] + b[1], a[0] + a[1], 0)) << "cpu " << i;
    EXPECT_TRUE(in_range(r.uSystem, b[2], a[2], 0)) << "cpu " << i;
    EXPECT_TRUE(in_range(r.uIdle, b[3], a[3], kIdleSlack)) << "cpu " << i;
    EXPECT_TRUE(in_range(r.uIdleTotal, b[3] + b[4], a[3] + a[4], kIdleSlack)) << "cpu " << i;
    EXPECT_TRUE(in_range(r.uInterrupt, b[5] + b[6], a[5] + a[6], 0)) << "cpu " << i;
    EXPECT_TRUE(r.uReserved1 == 77 && r.uReserved2 == 77) << "cpu " << i;
  }
}

TEST(SysInfo, CpuLinesFromTenOnUseTwoDigitsAndCountersAre32Bit) {
  std::string text = "cpu  9 9 9 9 9 9 9 0 0 0\n";
  for (int i = 0; i < 12; ++i) {
    text += "cpu" + std::to_string(i);
    for (int k = 1; k <= 7; ++k)
      text += " " + std::to_string(i * 10 + k);
    text += " 0 0 0\n";
  }
  std::vector<OXA_CPU_TIMES> records(12);
  ASSERT_EQ(0, ParseCpuTimes(Text(text + "intr 1 2 3\n").get(), records.data(), 12));
  for (oxa_uint64 i = 0; i < 12; ++i) {
    const OXA_CPU_TIMES& r = records[i];
    EXPECT_EQ(std::vector<oxa_uint64>(
                  {i * 10 + 4, i * 10 + 3, 2 * i * 10 + 3, 2 * i * 10 + 9, 2 * i * 10 + 13}),
              std::vector<oxa_uint64>({r.uIdle, r.uSystem, r.uUser, r.uIdleTotal, r.uInterrupt}))
        << "cpu " << i;
  }
  EXPECT_EQ(
      -1, ParseCpuTimes(Text("cpu  1 2 3 4 5 6 7\ncpu0 1 2 3 4 5 6 7\n").get(), records.data(), 2));

  // 2^32 + 5: 64-bit builds keep the low 32 bits, 32-bit builds saturate, as the C library's
  // 32-bit conversion does; either way the value is never read at 64-bit width.
  ASSERT_EQ(0,
            ParseCpuTimes(Text("cpu  0\ncpu0 4294967301 0 0 0 0 0 0\n").get(), records.data(), 1));
  EXPECT_EQ(sizeof(long) == 8 ? 5u : 0xFFFFFFFFu, records[0].uUser);
}

TEST(SysInfo, MemoryStatusMatchesProcMeminfo) {
  EXPECT_EQ(-1, OXA_GetMemoryStatus(nullptr));
  OXA_MEMORY_STATUS status;
  memset(&status, 0x5A, sizeof status);
  ASSERT_EQ(0, OXA_GetMemoryStatus(&status));
  std::ifstream meminfo("/proc/meminfo");
  std::map<std::string, oxa_uint64> bytes;
  std::string name, unit;
  for (oxa_uint64 kb; meminfo >> name >> kb && std::getline(meminfo, unit);)
    bytes[name.substr(0, name.size() - 1)] = kb * 1024;
  EXPECT_EQ(bytes["MemTotal"], status.uTotal);
  EXPECT_EQ(bytes["SwapTotal"], status.uSwapTotal);
  EXPECT_LE(status.uSwapFree, status.uSwapTotal);
  EXPECT_TRUE(status.uAvailable > 0 && status.uAvailable <= status.uTotal);
  const oxa_uint64 expected = bytes.count("MemAvailable")
                                  ? bytes["MemAvailable"]
                                  : bytes["MemFree"] + bytes["Buffers"] + bytes["Cached"];
  // Memory moves between the two readings.
  EXPECT_NEAR(static_cast<double>(expected), static_cast<double>(status.uAvailable),
              static_cast<double>(status.uTotal) / 10);
  EXPECT_TRUE(status.uReserved1 == 0 && status.uReserved2 == 0);
}

// Without a MemAvailable above MemFree, available is MemFree + Buffers + Cached. Reading stops
// once MemTotal, SwapTotal and SwapFree were seen, and fails when one of them is missing.
TEST(SysInfo, MeminfoFallsBackToFreeBuffersCachedAndNeedsSwapLines) {
  const OXA_MEMORY_STATUS old = ParseMeminfo(
      "MemTotal: 1000 kB\nMemFree: 100 kB\nBuffers: 20 kB\nCached: 30 kB\nSwapCached: 7 kB\n"
      "SwapTotal: 500 kB\nSwapFree: 400 kB\nMemTotal: 1 kB\n");
  EXPECT_EQ(std::vector<oxa_uint64>({1000 * 1024, 150 * 1024, 500 * 1024, 400 * 1024, 0, 0}),
            std::vector<oxa_uint64>({old.uTotal, old.uAvailable, old.uSwapTotal, old.uSwapFree,
                                     old.uReserved1, old.uReserved2}));
  const std::string mem = "MemTotal: 1000 kB\nMemFree: 100 kB\n";
  const std::string swap = "SwapTotal: 0 kB\nSwapFree: 0 kB\n";
  EXPECT_EQ(
      103u * 1024,
      ParseMeminfo(mem + "MemAvailable: 100 kB\nBuffers: 1 kB\nCached: 2 kB\n" + swap).uAvailable);
  EXPECT_EQ(600u * 1024, ParseMeminfo(mem + "MemAvailable: 600 kB\n" + swap).uAvailable);
  EXPECT_EQ(~0ull, ParseMeminfo(mem + "SwapTotal: 0 kB\n").uTotal);
}

// The text shows the first three groups as native numbers, so their bytes appear reversed.
TEST(Uuid, DistinctRfcIdentifiersAndTheirText) {
  unsigned char first[16], second[16];
  ASSERT_EQ(0, OXA_GetUUID(first));
  ASSERT_EQ(0, OXA_GetUUID(second));
  EXPECT_NE(0, memcmp(first, second, sizeof first));
  EXPECT_EQ(0x80, first[8] & 0xC0);  // the standard variant
  EXPECT_TRUE(first[6] >> 4 == 4 || first[6] >> 4 == 1) << (first[6] >> 4);
  EXPECT_EQ(-1, OXA_GetUUID(nullptr));

  const unsigned char id[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xAB};
  char text[40];
  ASSERT_EQ(0, OXA_StringFromUUID(id, text, sizeof text));
  EXPECT_STREQ("03020100-0504-0706-0809-0A0B0C0D0EAB", text);
  std::vector<char> exact(36);  // on the heap, where the address sanitizer sees any overrun
  ASSERT_EQ(0, OXA_StringFromUUID(id, exact.data(), 36));
  EXPECT_STREQ("03020100-0504-0706-0809-0A0B0C0D0EA", exact.data());  // the last digit is cut
  text[0] = '#';
  EXPECT_EQ(-1, OXA_StringFromUUID(id, text, 35));
  EXPECT_EQ(-1, OXA_StringFromUUID(id, text, 0));
  EXPECT_EQ(-1, OXA_StringFromUUID(id, text, -1));
  EXPECT_EQ('#', text[0]);
  EXPECT_EQ(-1, OXA_StringFromUUID(nullptr, text, 40));
  EXPECT_EQ(-1, OXA_StringFromUUID(id, nullptr, 40));
}

}  // namespace
