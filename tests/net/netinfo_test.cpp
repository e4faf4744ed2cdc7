// Host name, hardware addresses, the adapter list and name resolution, checked against what the
// system reports through other channels: gethostname, getifaddrs, /sys/class/net, getaddrinfo.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <netdb.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "oxa_netinfo.h"

#include "support/test_support.h"

namespace {

using oxa_test::Bytes;

const std::string kLoopback6 = Bytes(&in6addr_loopback, 16);

// What getifaddrs reports: {name, address, mask} of each IPv4 entry (by label) and
// {name, 16 address bytes} of each IPv6 entry.
struct SystemView {
  std::vector<std::vector<std::string>> ipv4;
  std::vector<std::vector<std::string>> ipv6;
  SystemView() {
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) return;
    for (ifaddrs* it = all; it != nullptr; it = it->ifa_next) {
      const int family = it->ifa_addr != nullptr ? it->ifa_addr->sa_family : 0;
      if (family == AF_INET) {
        ipv4.push_back({it->ifa_name, Text(it->ifa_addr), Text(it->ifa_netmask)});
      } else if (family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(it->ifa_addr);
        ipv6.push_back({it->ifa_name, Bytes(&in6->sin6_addr, 16)});
      }
    }
    freeifaddrs(all);
  }
  static std::string Text(const sockaddr* addr) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(addr)->sin_addr, text, sizeof text);
    return text;
  }
  bool HasIpv4(const std::string& ip) const {
    return std::any_of(ipv4.begin(), ipv4.end(), [&](const auto& e) { return e[1] == ip; });
  }
  bool HasLoopbackIpv6() const {
    return std::count(ipv6.begin(), ipv6.end(), std::vector<std::string>{"lo", kLoopback6}) != 0;
  }
};

// The 6 bytes in /sys/class/net/<interface>/address; an alias ("eth0:1") stands for its
// interface.
std::string SysfsMac(const std::string& name) {
  std::ifstream file("/sys/class/net/" + name.substr(0, name.find(':')) + "/address");
  std::string text;
  unsigned int b[6] = {};
  if (file >> text)
    sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]);
  return std::string{static_cast<char>(b[0]), static_cast<char>(b[1]), static_cast<char>(b[2]),
                     static_cast<char>(b[3]), static_cast<char>(b[4]), static_cast<char>(b[5])};
}

TEST(HostName, IsTheSystemsNameAndNeedsRoomForItsTerminator) {
  char expected[256] = {};
  char name[256];
  ASSERT_EQ(0, gethostname(expected, sizeof expected));
  memset(name, 'x', sizeof name);
  ASSERT_EQ(0, OXA_GetHostName(name, sizeof name));
  EXPECT_STREQ(expected, name);
  // Exact and one-short buffers on the heap, where the address sanitizer sees any overrun.
  const size_t length = strlen(expected);
  std::vector<char> exact(length + 1, 'x');
  EXPECT_EQ(0, OXA_GetHostName(exact.data(), static_cast<unsigned int>(exact.size())));
  EXPECT_STREQ(expected, exact.data());
  std::vector<char> short_one(length, 'x');
  EXPECT_EQ(OXA_ERROR, OXA_GetHostName(short_one.data(), static_cast<unsigned int>(length)));
  EXPECT_EQ(OXA_ERROR, OXA_GetHostName(name, 0));
  EXPECT_EQ(OXA_ERROR, OXA_GetHostName(nullptr, 64));
}

TEST(MacAddr, FindsTheInterfaceOfAnAddress) {
  const SystemView view;
  const int fds = oxa_test::OpenFdCount();
  unsigned char mac[6] = {7, 7, 7, 7, 7, 7};
  unsigned int len = 1;
  if (!view.HasIpv4("127.0.0.2")) {
    EXPECT_EQ(OXA_ERROR, OXA_GetMacAddr("127.0.0.2", mac, &len));
    EXPECT_EQ(6u, len) << "set before the search";
  }
  unsigned int zero = 0;
  oxa_test::StderrCapture capture;
  EXPECT_EQ(OXA_ERROR, OXA_GetMacAddr(nullptr, mac, &len));
  EXPECT_EQ(OXA_ERROR, OXA_GetMacAddr("127.0.0.1", nullptr, &len));
  EXPECT_EQ(OXA_ERROR, OXA_GetMacAddr("127.0.0.1", mac, nullptr));
  EXPECT_EQ(OXA_ERROR, OXA_GetMacAddr("127.0.0.1", mac, &zero));
  EXPECT_EQ(0u, zero);
  // The debug channel ends every line with its own newline after the message's.
  std::string expected;
  for (int i = 0; i < 4; ++i)
    expected += "trovik OXA_GetMacAddr parameter error, return OXA_ERROR\n\n";
  EXPECT_EQ(expected, capture.Take());
  EXPECT_EQ(std::string(6, 7), Bytes(mac, 6)) << "failures write nothing";
  if (view.HasIpv4("127.0.0.1")) {
    ASSERT_EQ(0, OXA_GetMacAddr("127.0.0.1", mac, &len));
    EXPECT_EQ(SysfsMac("lo"), Bytes(mac, 6));
  }
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
}

// An answer as "flags family type protocol canonical-name" and its zero-padded address record.
using Answer = std::pair<std::string, std::string>;
Answer MakeAnswer(int flags, int family, int type, int protocol, const char* canon,
                  const void* addr, size_t len) {
  char numbers[64];
  snprintf(numbers, sizeof numbers, "%d %d %d %d ", flags, family, type, protocol);
  return {numbers + std::string(canon != nullptr ? canon : "(none)"),
          Bytes(addr, len) + std::string(sizeof(OXA_ADDR_T) - len, '\0')};
}

std::vector<Answer> SystemAnswers(const char* node, const char* service, int flags, int family,
                                  int type) {
  const addrinfo hints = {flags, family, type, 0, 0, nullptr, nullptr, nullptr};
  addrinfo* list = nullptr;
  std::vector<Answer> answers;
  EXPECT_EQ(0, getaddrinfo(node, service, &hints, &list)) << node;
  for (const addrinfo* a = list; a != nullptr; a = a->ai_next)
    answers.push_back(MakeAnswer(a->ai_flags, a->ai_family, a->ai_socktype, a->ai_protocol,
                                 a->ai_canonname, a->ai_addr, a->ai_addrlen));
  if (list != nullptr) freeaddrinfo(list);
  return answers;
}

TEST(AddressInfo, CopiesEveryAnswerOfTheResolverInOrder) {
  const struct {
    const char* node;
    int flags, family, type;
  } queries[] = {{"localhost", AI_CANONNAME, 0, 0},
                 {"::1", AI_NUMERICHOST | AI_NUMERICSERV, AF_INET6, SOCK_DGRAM},
                 {"127.0.0.1", AI_CANONNAME, AF_INET, SOCK_STREAM}};
  for (const auto& q : queries) {
    const OXA_ADDRESS_HINTS_T hints = {q.flags, q.family, q.type, 0, {}, nullptr};
    OXA_ADDRESS_INFO_T* list = nullptr;
    ASSERT_EQ(0, OXA_GetAddressInfo(q.node, "8080", &hints, &list)) << q.node;
    std::vector<Answer> got;
    for (const OXA_ADDRESS_INFO_T* n = list; n != nullptr; n = n->next)
      got.push_back(MakeAnswer(n->flags, n->family, n->sockType, n->protocol, n->canonName,
                               &n->addr, sizeof n->addr));
    EXPECT_EQ(SystemAnswers(q.node, "8080", q.flags, q.family, q.type), got) << q.node;
    EXPECT_EQ(0, OXA_FreeAddressInfo(list));
  }
  OXA_ADDRESS_HINTS_T numeric = {AI_NUMERICHOST, 0, 0, 0, {}, nullptr};
  auto* sentinel = reinterpret_cast<OXA_ADDRESS_INFO_T*>(0x1);
  OXA_ADDRESS_INFO_T* result = sentinel;
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressInfo("not an address", nullptr, &numeric, &result));
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressInfo(nullptr, nullptr, nullptr, &result));
  EXPECT_EQ(sentinel, result);
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressInfo("127.0.0.1", nullptr, &numeric, nullptr));
  EXPECT_EQ(0, OXA_FreeAddressInfo(nullptr));
}

TEST(AddressByName, GivesTheResolversAddressesUpToTheCallersCapacity) {
  const std::vector<Answer> answers = SystemAnswers("localhost", nullptr, 0, 0, SOCK_STREAM);
  OXA_ADDR_T addrs[9];
  for (unsigned int capacity : {1u, 8u}) {
    memset(addrs, 0x5A, sizeof addrs);
    unsigned int count = capacity;
    ASSERT_EQ(0, OXA_GetAddressByName("localhost", OXA_AF_DUAL, addrs, &count));
    ASSERT_LE(count, capacity);
    std::vector<std::string> want;
    std::vector<std::string> got;
    for (size_t i = 0; i < answers.size() && i < capacity; ++i)
      want.push_back(answers[i].second);
    for (unsigned int i = 0; i < count; ++i)
      got.push_back(Bytes(&addrs[i], sizeof addrs[i]));
    EXPECT_EQ(want, got) << capacity;
    EXPECT_EQ(std::string(sizeof addrs[0], '\x5a'), Bytes(&addrs[count], sizeof addrs[0]));
  }
  unsigned int count = 1;
  ASSERT_EQ(0, OXA_GetAddressByName("::1", AF_INET6, addrs, &count));
  EXPECT_EQ(SystemAnswers("::1", nullptr, 0, AF_INET6, SOCK_STREAM).at(0).second,
            Bytes(&addrs[0], sizeof addrs[0]));
  EXPECT_EQ(0, OXA_GetAddressByName("127.0.0.1", OXA_AF_DEFAULT, addrs, &count)) << "g_Af is 2";

  memset(addrs, 0x5A, sizeof addrs[0]);
  unsigned int none = 0;
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName(nullptr, AF_INET, addrs, &count));
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName("127.0.0.1", AF_INET, nullptr, &count));
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName("127.0.0.1", AF_INET, addrs, nullptr));
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName("127.0.0.1", AF_INET, addrs, &none));
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName("127.0.0.1", 7, addrs, &count));
  // A literal of the other family is refused without any lookup.
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName("::1", AF_INET, addrs, &count));
  EXPECT_TRUE(count == 1 && none == 0);
  EXPECT_EQ(std::string(sizeof addrs[0], '\x5a'), Bytes(addrs, sizeof addrs[0]));
}

// Frees the list when the test ends, whatever it asserted.
struct ListGuard {
  OXA_ADAPTER_INFO_T* list = nullptr;
  ~ListGuard() { OXA_FreeAdapterInfo(list); }
};

TEST(AdapterInfo, RecordsMatchTheSystemsIpv4Interfaces) {
  const SystemView view;
  ListGuard guard;
  ASSERT_EQ(0, OXA_GetAdapterInfo(&guard.list));
  const std::set<std::vector<std::string>> system(view.ipv4.begin(), view.ipv4.end());
  std::multiset<std::string> names;
  std::multiset<std::string> system_names;
  for (const auto& entry : view.ipv4)
    system_names.insert(entry[0]);
  unsigned int index = static_cast<unsigned int>(std::min<size_t>(view.ipv4.size(), 16));
  for (const OXA_ADAPTER_INFO_T* adapter = guard.list; adapter != nullptr;
       adapter = adapter->next) {
    SCOPED_TRACE(adapter->name);
    ASSERT_GT(index, 0u) << "more records than interface entries";
    EXPECT_EQ(--index, adapter->index);  // from the last entry to the first
    EXPECT_TRUE(adapter->macLen == 6 && adapter->type == 0 && adapter->reservedList1 == nullptr &&
                adapter->reservedList2 == nullptr);
    ASSERT_NE(nullptr, adapter->ipv4List);
    EXPECT_EQ(nullptr, adapter->ipv4List->next);
    // The address is read by interface name, so a second unlabelled address of an interface
    // shows its first one; both are the system's {name, address, mask}.
    EXPECT_EQ(1u, system.count({adapter->name, adapter->ipv4List->ip, adapter->ipv4List->mask}))
        << adapter->ipv4List->ip << "/" << adapter->ipv4List->mask;
    EXPECT_EQ(SysfsMac(adapter->name), Bytes(adapter->mac, 6));
    names.insert(adapter->name);
  }
  EXPECT_EQ(0u, index) << "fewer records than interface entries";
  if (view.ipv4.size() <= 16) {
    EXPECT_EQ(system_names, names);
  }
}

// Every IPv6 address goes to the adapter with its link's MAC. The netlink port named after the
// process id is held meanwhile by another socket (as a concurrent query would hold it): the
// query must still get the addresses.
TEST(AdapterInfo, Ipv6AddressesGoToTheAdapterWithTheLinksMac) {
  const SystemView view;
  if (!view.HasLoopbackIpv6()) GTEST_SKIP() << "::1 is not configured on lo";
  const int holder = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  sockaddr_nl local = {AF_NETLINK, 0, static_cast<uint32_t>(getpid()), 0};
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
  bool lo_listed = false;
  bool lo_has_loopback = false;
  for (const OXA_ADAPTER_INFO_T* a = guard.list; a != nullptr; a = a->next) {
    lo_listed = lo_listed || strcmp(a->name, "lo") == 0;
    for (const OXA_IPV6_NODE_T* node = a->ipv6List; node != nullptr; node = node->next) {
      const std::string ip = Bytes(node->ip, 16);
      EXPECT_TRUE(std::any_of(view.ipv6.begin(), view.ipv6.end(), [&](const auto& e) {
        return e[1] == ip && SysfsMac(e[0]) == Bytes(a->mac, 6);
      })) << a->name;
      EXPECT_EQ(std::string(16, '\0'), Bytes(node->reserved, 16));
      lo_has_loopback = lo_has_loopback || (strcmp(a->name, "lo") == 0 && ip == kLoopback6);
    }
  }
  EXPECT_EQ(lo_listed, lo_has_loopback);
}

// Library start-up runs this query every time: a link dump larger than the receive buffer
// must not make it wait for the 3-second receive time-out.
TEST(AdapterInfo, ExReportsTheFamiliesWellWithinTheReceiveTimeOut) {
  const SystemView view;
  const int fds = oxa_test::OpenFdCount();
  ListGuard guard;
  int af = 12345;
  oxa_test::StderrCapture capture;
  const oxa_test::Stopwatch watch;
  ASSERT_EQ(0, OXA_GetAdapterInfoEx(&guard.list, &af));
  EXPECT_LT(watch.Elapsed().count(), 1000);
  const std::string printed = capture.Take();
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
  int rounds = -1;
  int links = -1;
  int addresses = -1;
  const size_t at = printed.find("loop[");
  ASSERT_NE(std::string::npos, at) << printed;
  ASSERT_EQ(3, sscanf(printed.c_str() + at, "loop[%d] find %d mac and %d ip\n", &rounds, &links,
                      &addresses));
  EXPECT_EQ(2, rounds);
  EXPECT_EQ(static_cast<int>(std::min<size_t>(view.ipv6.size(), 16)), addresses);
  EXPECT_TRUE(links >= (view.HasLoopbackIpv6() ? 1 : 0) && links <= 16) << links;
  bool ipv4 = false;
  bool ipv6 = false;
  for (const OXA_ADAPTER_INFO_T* a = guard.list; a != nullptr; a = a->next) {
    ipv4 = ipv4 || a->ipv4List != nullptr;
    ipv6 = ipv6 || a->ipv6List != nullptr;
  }
  EXPECT_EQ(ipv4 && ipv6 ? 101 : ipv4 ? 2 : ipv6 ? 10 : 12345, af);
  EXPECT_EQ(!view.ipv4.empty(), ipv4);

  auto* sentinel = reinterpret_cast<OXA_ADAPTER_INFO_T*>(0x1);
  OXA_ADAPTER_INFO_T* list = sentinel;
  EXPECT_EQ(OXA_ERROR, OXA_GetAdapterInfo(nullptr));
  EXPECT_EQ(OXA_ERROR, OXA_GetAdapterInfoEx(&list, nullptr));
  EXPECT_EQ(OXA_ERROR, OXA_GetAdapterInfoEx(nullptr, &af));
  EXPECT_EQ(sentinel, list);
  EXPECT_EQ(0, OXA_FreeAdapterInfo(nullptr));
}

}  // namespace
