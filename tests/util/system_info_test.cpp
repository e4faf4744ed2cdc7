#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "oxa_sysinfo.h"
#include "oxa_time.h"

#include "support/test_support.h"
#include "util/proc_parse.h"

namespace {

// A stdio stream over prepared text, for the parsers.
class TextStream {
 public:
  explicit TextStream(std::string text)
      : text_(std::move(text)), file_(fmemopen(text_.data(), text_.size(), "r")) {}
  ~TextStream() { fclose(file_); }
  TextStream(const TextStream&) = delete;
  TextStream& operator=(const TextStream&) = delete;
  FILE* get() const { return file_; }

 private:
  std::string text_;
  FILE* file_;
};

// The per-processor lines of "/proc/stat" read independently: user nice system idle iowait
// irq softirq of each.
std::vector<std::vector<oxa_uint64>> ReadCpuLines() {
  std::ifstream stat("/proc/stat");
  std::vector<std::vector<oxa_uint64>> cpus;
  std::string line;
  std::getline(stat, line);  // the sum over all processors
  while (std::getline(stat, line) && line.compare(0, 3, "cpu") == 0) {
    std::istringstream fields(line.substr(line.find(' ')));
    std::vector<oxa_uint64> values(7);
    for (oxa_uint64& value : values)
      fields >> value;
    cpus.push_back(values);
  }
  return cpus;
}

std::map<std::string, oxa_uint64> ReadMemInfoBytes() {
  std::ifstream meminfo("/proc/meminfo");
  std::map<std::string, oxa_uint64> bytes;
  std::string name;
  oxa_uint64 kb;
  std::string unit_line;
  while (meminfo >> name >> kb) {
    std::getline(meminfo, unit_line);
    bytes[name.substr(0, name.size() - 1)] = kb * 1024;
  }
  return bytes;
}

TEST(SysInfo, SleepsLastAtLeastTheirTime) {
  oxa_test::Stopwatch ms_watch;
  EXPECT_EQ(0, OXA_Sleep(40));
  EXPECT_GE(ms_watch.Elapsed().count(), 40);
  EXPECT_LT(ms_watch.Elapsed().count(), 3000);
  oxa_test::Stopwatch us_watch;
  EXPECT_EQ(0, OXA_USleep(20000));
  EXPECT_GE(us_watch.Elapsed().count(), 20);
  EXPECT_LT(us_watch.Elapsed().count(), 3000);
}

TEST(SysInfo, RandIsTheGeneratorSeededWithTheTick) {
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
}

TEST(SysInfo, ZeroMemoryAndProcessorCount) {
  unsigned char bytes[8];
  memset(bytes, 0xAA, sizeof bytes);
  EXPECT_EQ(bytes, OXA_ZeroMemory(bytes, 5));
  const unsigned char expected[8] = {0, 0, 0, 0, 0, 0xAA, 0xAA, 0xAA};
  EXPECT_EQ(0, memcmp(expected, bytes, sizeof bytes));
  EXPECT_EQ(nullptr, OXA_ZeroMemory(nullptr, 5));
  EXPECT_GE(OXA_GetCPUNumber(), 1);
  EXPECT_GE(OXA_GetCPUNumber(), static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)));
}

TEST(SysInfo, CpuPerformanceAsksForItsSizeThenMatchesProcStat) {
  EXPECT_EQ(-1, OXA_GetCPUPerformance(nullptr, nullptr));
  const unsigned int cpus = static_cast<unsigned int>(OXA_GetCPUNumber());
  unsigned int size = 0;
  EXPECT_EQ(-1, OXA_GetCPUPerformance(nullptr, &size));
  EXPECT_EQ(56 * cpus, size);
  EXPECT_EQ(-1, OXA_GetCPUPerformance(nullptr, &size));  // room enough, but no records
  std::vector<OXA_CPU_TIMES> records(cpus);
  for (OXA_CPU_TIMES& record : records)
    record.uReserved1 = record.uReserved2 = 77;
  const auto before = ReadCpuLines();
  ASSERT_EQ(0, OXA_GetCPUPerformance(records.data(), &size));
  const auto after = ReadCpuLines();
  ASSERT_GE(before.size(), cpus);
  ASSERT_GE(after.size(), cpus);
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
    EXPECT_EQ(77u, r.uReserved1);
    EXPECT_EQ(77u, r.uReserved2);
  }
}

TEST(SysInfo, CpuLinesFromTenOnUseTwoDigitsAndCountersAre32Bit) {
  std::string text = "cpu  9 9 9 9 9 9 9 0 0 0\n";
  for (int i = 0; i < 12; ++i) {
    const int b = i * 10;
    text += "cpu" + std::to_string(i) + " " + std::to_string(b + 1) + " " + std::to_string(b + 2) +
            " " + std::to_string(b + 3) + " " + std::to_string(b + 4) + " " +
            std::to_string(b + 5) + " " + std::to_string(b + 6) + " " + std::to_string(b + 7) +
            " 0 0 0\n";
  }
  text += "intr 1 2 3\n";
  std::vector<OXA_CPU_TIMES> records(12);
  TextStream twelve(text);
  ASSERT_EQ(0, oxa::internal::ParseCpuTimes(twelve.get(), records.data(), 12));
  for (int i = 0; i < 12; ++i) {
    const oxa_uint64 b = static_cast<oxa_uint64>(i) * 10;
    EXPECT_EQ(b + 4, records[i].uIdle) << i;
    EXPECT_EQ(b + 3, records[i].uSystem) << i;
    EXPECT_EQ(2 * b + 3, records[i].uUser) << i;
    EXPECT_EQ(2 * b + 9, records[i].uIdleTotal) << i;
    EXPECT_EQ(2 * b + 13, records[i].uInterrupt) << i;
  }
  TextStream short_file("cpu  1 2 3 4 5 6 7\ncpu0 1 2 3 4 5 6 7\n");
  EXPECT_EQ(-1, oxa::internal::ParseCpuTimes(short_file.get(), records.data(), 2));

  // 2^32 + 5: 64-bit builds keep the low 32 bits, 32-bit builds saturate, as the C library's
  // 32-bit conversion does; either way the value is never read at 64-bit width.
  TextStream wide("cpu  0\ncpu0 4294967301 0 0 0 0 0 0\n");
  ASSERT_EQ(0, oxa::internal::ParseCpuTimes(wide.get(), records.data(), 1));
  EXPECT_EQ(sizeof(long) == 8 ? 5u : 0xFFFFFFFFu, records[0].uUser);
}

TEST(SysInfo, MemoryStatusMatchesProcMeminfo) {
  EXPECT_EQ(-1, OXA_GetMemoryStatus(nullptr));
  OXA_MEMORY_STATUS status;
  memset(&status, 0x5A, sizeof status);
  ASSERT_EQ(0, OXA_GetMemoryStatus(&status));
  auto bytes = ReadMemInfoBytes();
  EXPECT_EQ(bytes["MemTotal"], status.uTotal);
  EXPECT_EQ(bytes["SwapTotal"], status.uSwapTotal);
  EXPECT_LE(status.uSwapFree, status.uSwapTotal);
  EXPECT_GT(status.uAvailable, 0u);
  EXPECT_LE(status.uAvailable, status.uTotal);
  const oxa_uint64 expected = bytes.count("MemAvailable")
                                  ? bytes["MemAvailable"]
                                  : bytes["MemFree"] + bytes["Buffers"] + bytes["Cached"];
  const oxa_uint64 difference =
      expected > status.uAvailable ? expected - status.uAvailable : status.uAvailable - expected;
  EXPECT_LT(difference, status.uTotal / 10);  // memory moves between the two readings
  EXPECT_EQ(0u, status.uReserved1);
  EXPECT_EQ(0u, status.uReserved2);
}

TEST(SysInfo, MeminfoFallsBackToFreeBuffersCachedAndNeedsSwapLines) {
  const std::string no_available =
      "MemTotal: 1000 kB\nMemFree: 100 kB\nBuffers: 20 kB\nCached: 30 kB\nSwapCached: 7 kB\n"
      "SwapTotal: 500 kB\nSwapFree: 400 kB\nMemTotal: 1 kB\n";
  OXA_MEMORY_STATUS status{};
  TextStream old_kernel(no_available);
  ASSERT_EQ(0, oxa::internal::ParseMemoryStatus(old_kernel.get(), &status));
  EXPECT_EQ(1000u * 1024, status.uTotal);  // reading stopped at SwapFree
  EXPECT_EQ(150u * 1024, status.uAvailable);
  EXPECT_EQ(500u * 1024, status.uSwapTotal);
  EXPECT_EQ(400u * 1024, status.uSwapFree);

  status = OXA_MEMORY_STATUS{};
  TextStream low_estimate(
      "MemTotal: 1000 kB\nMemFree: 100 kB\nMemAvailable: 90 kB\nBuffers: 1 kB\n"
      "Cached: 2 kB\nSwapTotal: 0 kB\nSwapFree: 0 kB\n");
  ASSERT_EQ(0, oxa::internal::ParseMemoryStatus(low_estimate.get(), &status));
  EXPECT_EQ(103u * 1024, status.uAvailable);

  status = OXA_MEMORY_STATUS{};
  TextStream estimate(
      "MemTotal: 1000 kB\nMemFree: 100 kB\nMemAvailable: 600 kB\n"
      "SwapTotal: 0 kB\nSwapFree: 0 kB\n");
  ASSERT_EQ(0, oxa::internal::ParseMemoryStatus(estimate.get(), &status));
  EXPECT_EQ(600u * 1024, status.uAvailable);

  status = OXA_MEMORY_STATUS{};
  TextStream no_swap_free("MemTotal: 1000 kB\nMemFree: 100 kB\nSwapTotal: 0 kB\n");
  EXPECT_EQ(-1, oxa::internal::ParseMemoryStatus(no_swap_free.get(), &status));
}

}  // namespace
