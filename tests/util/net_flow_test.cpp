#include <gtest/gtest.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "oxa_netflow.h"

#include "util/proc_parse.h"

namespace {

using oxa::internal::kFlowColumns;

// The sixteen counters of one interface, read independently of the library.
std::vector<oxa_uint64> ReadCounters(const std::string& name) {
  std::ifstream dev("/proc/net/dev");
  std::string line;
  while (std::getline(dev, line)) {
    const size_t colon = line.find(':');
    const size_t start = line.find_first_not_of(' ');
    if (colon == std::string::npos || line.compare(start, colon - start, name) != 0) continue;
    std::istringstream fields(line.substr(colon + 1));
    std::vector<oxa_uint64> counters(16);
    for (oxa_uint64& counter : counters)
      fields >> counter;
    return counters;
  }
  return {};
}

// The single lookup and the list both lie between two independent readings (other processes
// use loopback too).
TEST(NetFlow, LoopbackCountersMatchProcNetDev) {
  unsigned int size = 0;
  EXPECT_EQ(-1, OXA_GetNetWorkFlowDataEx(nullptr, &size));  // asks for its size first
  std::vector<OXA_NETFLOW_DATA> all(size / sizeof(OXA_NETFLOW_DATA) + 2);
  size = static_cast<unsigned int>(all.size() * sizeof(OXA_NETFLOW_DATA));
  OXA_NETFLOW_DATA lo;
  const auto before = ReadCounters("lo");
  ASSERT_EQ(0, OXA_GetNetWorkFlowData("lo", &lo));
  ASSERT_EQ(0, OXA_GetNetWorkFlowDataEx(all.data(), &size));
  const auto after = ReadCounters("lo");
  ASSERT_EQ(16u, before.size());
  EXPECT_STREQ("lo", lo.szName);
  all.resize(size / sizeof(OXA_NETFLOW_DATA));
  const auto listed = std::find_if(all.begin(), all.end(), [](const OXA_NETFLOW_DATA& record) {
    return strcmp(record.szName, "lo") == 0;
  });
  ASSERT_NE(all.end(), listed);
  for (int i = 0; i < 16; ++i) {
    EXPECT_LE(before[i], lo.*kFlowColumns[i]) << "column " << i;
    EXPECT_LE(lo.*kFlowColumns[i], (*listed).*kFlowColumns[i]) << "column " << i;
    EXPECT_LE((*listed).*kFlowColumns[i], after[i]) << "column " << i;
  }

  OXA_NETFLOW_DATA untouched{};
  errno = 0;
  EXPECT_EQ(-1, OXA_GetNetWorkFlowData("no-such-if0", &untouched));
  EXPECT_EQ(ENODEV, errno);
  EXPECT_EQ('\0', untouched.szName[0]);
  EXPECT_EQ(-1, OXA_GetNetWorkFlowData(nullptr, &lo));
  EXPECT_EQ(-1, OXA_GetNetWorkFlowData("lo", nullptr));
  EXPECT_EQ(-1, OXA_GetNetWorkFlowDataEx(nullptr, nullptr));
}

// Every column lands in its own field, and a counter beyond 32 bits is kept whole.
TEST(NetFlow, ParsesWideCountersAndNamesTouchingTheColon) {
  std::string text =
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
  const int parse_errno = errno;  // read before fclose, which may change it
  fclose(in);
  EXPECT_EQ(-1, parsed);  // the last line has three counters only
  EXPECT_EQ(EINVAL, parse_errno);
  ASSERT_EQ(2u, seen.size());
  const OXA_NETFLOW_DATA eth0 = {
      "eth0", 8589934592ull, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  EXPECT_EQ(0, memcmp(&eth0, &seen[0], sizeof(eth0)));
  EXPECT_STREQ("lo", seen[1].szName);
}

}  // namespace
