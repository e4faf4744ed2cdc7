// The adapter list checked against what the system reports through other channels:
// getifaddrs for names and addresses, /sys/class/net for hardware addresses.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "oxa_netinfo.h"

#include "support/test_support.h"

namespace {

using Mac = std::array<unsigned char, 6>;
using Ipv6 = std::array<unsigned char, 16>;

struct Ipv4Entry {
  std::string name;
  std::string ip;
  std::string mask;
  bool operator<(const Ipv4Entry& other) const {
    return std::tie(name, ip, mask) < std::tie(other.name, other.ip, other.mask);
  }
};

struct Ipv6Entry {
  std::string name;
  Ipv6 ip;
};

// What getifaddrs reports: IPv4 entries (one per address, by label) and IPv6 entries.
struct SystemView {
  std::vector<Ipv4Entry> ipv4;
  std::vector<Ipv6Entry> ipv6;
};

std::string Text(const sockaddr* address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
  return text;
}

SystemView ReadSystemView() {
  SystemView view;
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return view;
  for (ifaddrs* it = all; it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr) continue;
    if (it->ifa_addr->sa_family == AF_INET) {
      view.ipv4.push_back({it->ifa_name, Text(it->ifa_addr), Text(it->ifa_netmask)});
    } else if (it->ifa_addr->sa_family == AF_INET6) {
      Ipv6Entry entry{it->ifa_name, {}};
      memcpy(entry.ip.data(), &reinterpret_cast<sockaddr_in6*>(it->ifa_addr)->sin6_addr, 16);
      view.ipv6.push_back(entry);
    }
  }
  freeifaddrs(all);
  return view;
}

// The hardware address in /sys/class/net/<interface>/address; the name of an alias
// ("eth0:1") stands for its interface.
bool SysfsMac(const std::string& name, Mac* mac) {
  const std::string interface = name.substr(0, name.find(':'));
  std::ifstream file("/sys/class/net/" + interface + "/address");
  std::string text;
  if (!(file >> text)) return false;
  unsigned int b[6];
  if (sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) != 6) {
    return false;
  }
  for (int i = 0; i < 6; ++i)
    (*mac)[i] = static_cast<unsigned char>(b[i]);
  return true;
}

Mac MacOf(const OXA_ADAPTER_INFO_T* adapter) {
  Mac mac;
  memcpy(mac.data(), adapter->mac, mac.size());
  return mac;
}

bool HasLoopbackIpv6(const SystemView& view) {
  return std::any_of(view.ipv6.begin(), view.ipv6.end(), [](const Ipv6Entry& entry) {
    return entry.name == "lo" && memcmp(entry.ip.data(), &in6addr_loopback, 16) == 0;
  });
}

// Frees the list when the test ends, whatever it asserted.
struct ListGuard {
  OXA_ADAPTER_INFO_T* list = nullptr;
  ~ListGuard() { OXA_FreeAdapterInfo(list); }
};

const OXA_ADAPTER_INFO_T* FindAdapter(const OXA_ADAPTER_INFO_T* list, const char* name) {
  for (; list != nullptr; list = list->next) {
    if (strcmp(list->name, name) == 0) return list;
  }
  return nullptr;
}

bool HasIpv6(const OXA_ADAPTER_INFO_T* adapter, const void* ip) {
  for (const OXA_IPV6_NODE_T* node = adapter->ipv6List; node != nullptr; node = node->next) {
    if (memcmp(node->ip, ip, 16) == 0) return true;
  }
  return false;
}

TEST(AdapterInfo, RecordsMatchTheSystemsIpv4Interfaces) {
  const SystemView view = ReadSystemView();
  ListGuard guard;
  ASSERT_EQ(0, OXA_GetAdapterInfo(&guard.list));

  const std::set<Ipv4Entry> system(view.ipv4.begin(), view.ipv4.end());
  std::vector<std::string> names;
  unsigned int expected_index = static_cast<unsigned int>(std::min<size_t>(view.ipv4.size(), 16));
  for (const OXA_ADAPTER_INFO_T* adapter = guard.list; adapter != nullptr;
       adapter = adapter->next) {
    SCOPED_TRACE(adapter->name);
    ASSERT_GT(expected_index, 0u) << "more records than interface entries";
    EXPECT_EQ(--expected_index, adapter->index);  // from the last entry to the first
    EXPECT_EQ(6u, adapter->macLen);
    EXPECT_EQ(0u, adapter->type);
    EXPECT_EQ(nullptr, adapter->reservedList1);
    EXPECT_EQ(nullptr, adapter->reservedList2);
    ASSERT_NE(nullptr, adapter->ipv4List);
    EXPECT_EQ(nullptr, adapter->ipv4List->next);
    // The address is read by interface name, so a second unlabelled address of an interface
    // shows its first one; both are the system's (name, address, mask) triples.
    EXPECT_EQ(1u, system.count({adapter->name, adapter->ipv4List->ip, adapter->ipv4List->mask}))
        << adapter->ipv4List->ip << "/" << adapter->ipv4List->mask;
    Mac mac;
    ASSERT_TRUE(SysfsMac(adapter->name, &mac));
    EXPECT_EQ(mac, MacOf(adapter));
    names.push_back(adapter->name);
  }
  EXPECT_EQ(0u, expected_index) << "fewer records than interface entries";
  if (view.ipv4.size() <= 16) {
    std::vector<std::string> system_names;
    for (const Ipv4Entry& entry : view.ipv4)
      system_names.push_back(entry.name);
    std::sort(names.begin(), names.end());
    std::sort(system_names.begin(), system_names.end());
    EXPECT_EQ(system_names, names);
  }
}

TEST(AdapterInfo, Ipv6AddressesGoToTheAdapterWithTheLinksMac) {
  const SystemView view = ReadSystemView();
  if (!HasLoopbackIpv6(view)) GTEST_SKIP() << "::1 is not configured on lo";
  ListGuard guard;
  ASSERT_EQ(0, OXA_GetAdapterInfo(&guard.list));
  const OXA_ADAPTER_INFO_T* lo = FindAdapter(guard.list, "lo");
  if (lo == nullptr) GTEST_SKIP() << "lo has no IPv4 address";
  EXPECT_TRUE(HasIpv6(lo, &in6addr_loopback));

  // Every IPv6 address on an adapter belongs to an interface with the adapter's MAC.
  for (const OXA_ADAPTER_INFO_T* adapter = guard.list; adapter != nullptr;
       adapter = adapter->next) {
    for (const OXA_IPV6_NODE_T* node = adapter->ipv6List; node != nullptr; node = node->next) {
      const bool owned = std::any_of(view.ipv6.begin(), view.ipv6.end(), [&](const Ipv6Entry& e) {
        Mac mac;
        return memcmp(e.ip.data(), node->ip, 16) == 0 && SysfsMac(e.name, &mac) &&
               mac == MacOf(adapter);
      });
      EXPECT_TRUE(owned) << adapter->name;
      const unsigned char zero[16] = {};
      EXPECT_EQ(0, memcmp(node->reserved, zero, sizeof zero));
    }
  }
}

// Library start-up runs this query every time: a link dump larger than the receive buffer
// must not make it wait for the 3-second receive time-out.
TEST(AdapterInfo, AnswersWellWithinTheReceiveTimeOut) {
  const SystemView view = ReadSystemView();
  ListGuard guard;
  oxa_test::StderrCapture capture;
  const oxa_test::Stopwatch watch;
  ASSERT_EQ(0, OXA_GetAdapterInfo(&guard.list));
  const auto elapsed = watch.Elapsed();
  const std::string printed = capture.Take();
  EXPECT_LT(elapsed.count(), 1000);

  int rounds = -1;
  int links = -1;
  int addresses = -1;
  const size_t at = printed.find("loop[");
  ASSERT_NE(std::string::npos, at) << printed;
  ASSERT_EQ(3, sscanf(printed.c_str() + at, "loop[%d] find %d mac and %d ip\n", &rounds, &links,
                      &addresses));
  EXPECT_EQ(2, rounds);
  EXPECT_EQ(static_cast<int>(std::min<size_t>(view.ipv6.size(), 16)), addresses);
  if (HasLoopbackIpv6(view)) {
    EXPECT_GE(links, 1);
  }
  EXPECT_LE(links, 16);
}

TEST(AdapterInfo, ExReportsTheFamiliesFound) {
  const SystemView view = ReadSystemView();
  ListGuard guard;
  int af = 12345;
  ASSERT_EQ(0, OXA_GetAdapterInfoEx(&guard.list, &af));
  bool ipv4 = false;
  bool ipv6 = false;
  for (const OXA_ADAPTER_INFO_T* adapter = guard.list; adapter != nullptr;
       adapter = adapter->next) {
    ipv4 = ipv4 || adapter->ipv4List != nullptr;
    ipv6 = ipv6 || adapter->ipv6List != nullptr;
  }
  EXPECT_EQ(ipv4 && ipv6 ? 101 : ipv4 ? 2 : ipv6 ? 10 : 12345, af);
  EXPECT_EQ(!view.ipv4.empty(), ipv4);
  // Every adapter has its IPv4 node, so IPv6 alone cannot occur; with ::1 on an IPv4
  // loopback both families are there.
  if (HasLoopbackIpv6(view) && FindAdapter(guard.list, "lo") != nullptr) {
    EXPECT_EQ(101, af);
  }
}

TEST(AdapterInfo, BadArgumentsChangeNothingAndQueriesLeaveNoDescriptorOpen) {
  const int fds = oxa_test::OpenFdCount();
  EXPECT_EQ(OXA_ERROR, OXA_GetAdapterInfo(nullptr));
  auto* sentinel = reinterpret_cast<OXA_ADAPTER_INFO_T*>(0x1);
  OXA_ADAPTER_INFO_T* list = sentinel;
  int af = 7;
  EXPECT_EQ(OXA_ERROR, OXA_GetAdapterInfoEx(&list, nullptr));
  EXPECT_EQ(OXA_ERROR, OXA_GetAdapterInfoEx(nullptr, &af));
  EXPECT_EQ(sentinel, list);
  EXPECT_EQ(7, af);
  EXPECT_EQ(0, OXA_FreeAdapterInfo(nullptr));
  oxa_test::StderrCapture quiet;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(0, OXA_GetAdapterInfoEx(&list, &af));
    EXPECT_EQ(0, OXA_FreeAdapterInfo(list));
  }
  quiet.Take();
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
}

// The netlink port named after the process id can be held by one socket of the process only
// (another query running at the same time, or any netlink user); the query must still get the
// IPv6 addresses.
TEST(AdapterInfo, Ipv6FoundWhileAnotherSocketHoldsTheProcessPort) {
  const SystemView view = ReadSystemView();
  if (!HasLoopbackIpv6(view)) GTEST_SKIP() << "::1 is not configured on lo";
  const int holder = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  ASSERT_GE(holder, 0);
  sockaddr_nl local = {};
  local.nl_family = AF_NETLINK;
  local.nl_pid = static_cast<uint32_t>(getpid());
  const int bound = bind(holder, reinterpret_cast<sockaddr*>(&local), sizeof local);
  const int bind_errno = errno;
  ListGuard guard;
  oxa_test::StderrCapture capture;
  const int result = OXA_GetAdapterInfo(&guard.list);
  const std::string printed = capture.Take();
  close(holder);
  ASSERT_EQ(0, bound) << "the process port is taken already, errno " << bind_errno;
  ASSERT_EQ(0, result);
  EXPECT_EQ(std::string::npos, printed.find("trovik")) << printed;
  const OXA_ADAPTER_INFO_T* lo = FindAdapter(guard.list, "lo");
  if (lo == nullptr) GTEST_SKIP() << "lo has no IPv4 address";
  EXPECT_TRUE(HasIpv6(lo, &in6addr_loopback));
}

}  // namespace
