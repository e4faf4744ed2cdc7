#include <gtest/gtest.h>

#include <errno.h>
#include <stdio.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "oxa_netflow.h"

#include "util/proc_parse.h"

namespace {

// The sixteen counters of one interface, read independently of the library.
std::vector<oxa_uint64> ReadCounters(const std::string& name) {
  std::ifstream dev("/proc/net/dev");
  std::string line;
  while (std::getline(dev, line)) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    const size_t start = line.find_first_not_of(' ');
    if (line.substr(start, colon - start) != name) continue;
    std::istringstream fields(line.substr(colon + 1));
    std::vector<oxa_uint64> counters(16);
    for (oxa_uint64& counter : counters)
      fields >> counter;
    return counters;
  }
  return {};
}

std::vector<oxa_uint64> Counters(const OXA_NETFLOW_DATA& data) {
  std::vector<oxa_uint64> counters;
  for (oxa_uint64 OXA_NETFLOW_DATA::*column : oxa::internal::kFlowColumns) {
    counters.push_back(data.*column);
  }
  return counters;
}

TEST(NetFlow, LoopbackCountersMatchProcNetDev) {
  OXA_NETFLOW_DATA lo;
  const auto before = ReadCounters("lo");
  ASSERT_EQ(16u, before.size());
  ASSERT_EQ(0, OXA_GetNetWorkFlowData("lo", &lo));
  const auto after = ReadCounters("lo");
  EXPECT_STREQ("lo", lo.szName);
  const auto read = Counters(lo);
  for (int i = 0; i < 16; ++i) {
    EXPECT_LE(before[i], read[i]) << "column " << i;  // other processes use loopback too
    EXPECT_LE(read[i], after[i]) << "column " << i;
  }
  OXA_NETFLOW_DATA untouched{};
  errno = 0;
  EXPECT_EQ(-1, OXA_GetNetWorkFlowData("no-such-if0", &untouched));
  EXPECT_EQ(ENODEV, errno);
  EXPECT_EQ('\0', untouched.szName[0]);
  EXPECT_EQ(-1, OXA_GetNetWorkFlowData(nullptr, &lo));
  EXPECT_EQ(-1, OXA_GetNetWorkFlowData("lo", nullptr));
}

TEST(NetFlow, AllInterfacesAskForTheirSizeFirst) {
  EXPECT_EQ(-1, OXA_GetNetWorkFlowDataEx(nullptr, nullptr));
  unsigned int size = 0;
  EXPECT_EQ(-1, OXA_GetNetWorkFlowDataEx(nullptr, &size));
  ASSERT_GT(size, 0u);
  ASSERT_EQ(0u, size % sizeof(OXA_NETFLOW_DATA));
  std::vector<OXA_NETFLOW_DATA> records(size / sizeof(OXA_NETFLOW_DATA) + 2);
  unsigned int room = static_cast<unsigned int>(records.size() * sizeof(OXA_NETFLOW_DATA));
  ASSERT_EQ(0, OXA_GetNetWorkFlowDataEx(records.data(), &room));
  EXPECT_LE(room, static_cast<unsigned int>(records.size() * sizeof(OXA_NETFLOW_DATA)));
  bool has_loopback = false;
  for (size_t i = 0; i < room / sizeof(OXA_NETFLOW_DATA); ++i) {
    has_loopback |= std::string(records[i].szName) == "lo";
  }
  EXPECT_TRUE(has_loopback);
}

TEST(NetFlow, ParsesWideCountersAndNamesTouchingTheColon) {
  std::string text =
      "Inter-|   Receive                            |  Transmit\n"
      " face |bytes    packets errs drop fifo frame compressed multicast|bytes ...\n"
      "  eth0:8589934592 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"
      "    lo: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n"
      "  bad0: 1 2 3\n";
  FILE* in = fmemopen(text.data(), text.size(), "r");
  std::vector<OXA_NETFLOW_DATA> seen;
  errno = 0;
  const int parsed = oxa::internal::ForEachFlow(in, [&](const OXA_NETFLOW_DATA& record) {
    seen.push_back(record);
    return true;
  });
  fclose(in);
  EXPECT_EQ(-1, parsed);  // the last line has three counters only
  EXPECT_EQ(EINVAL, errno);
  ASSERT_EQ(2u, seen.size());
  EXPECT_STREQ("eth0", seen[0].szName);
  EXPECT_EQ(8589934592ull, seen[0].uRecvBytes);  // beyond 32 bits, kept whole
  EXPECT_EQ(9u, seen[0].uSendBytes);
  EXPECT_EQ(16u, seen[0].uSendCompressed);
  EXPECT_STREQ("lo", seen[1].szName);
}

}  // namespace
