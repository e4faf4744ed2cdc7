// The IPv6 part of the adapter list. A routing netlink socket dumps the IPv6 links (index and
// hardware address) and then the IPv6 addresses (index and address); the addresses are handed
// to the adapters whose MAC matches their link.
//
// Library start-up runs this on every OXA_InitEx, so it must not wait for nothing. A dump
// datagram can be far larger than the 2,048-byte buffer (each link message carries the
// interface's IPv6 configuration and statistics, several hundred bytes); a plain receive would
// cut it, lose the end-of-dump message packed behind the links and leave the call waiting for
// the receive time-out. Every datagram is therefore measured first (MSG_PEEK | MSG_TRUNC) and
// read whole, into a larger buffer when needed.
#include "net/adapter_netlink.h"

#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>

#include "oxa_frame.h"

#include "frame/errno_util.h"
#include "net/adapter_info.h"

namespace oxa {
namespace internal {

namespace {

constexpr int kMaxPairs = 16;            // links and addresses collected, each
constexpr size_t kReceiveBytes = 2048;   // enough for most datagrams; larger ones grow it
constexpr int kReceiveTimeoutMs = 3000;  // only a silent kernel makes a receive wait this long
constexpr int kRounds = 2;               // a link dump, then an address dump
constexpr uint16_t kDumpFlags = NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH;
static_assert(kDumpFlags == 0x301, "dump request flags");
static_assert(RTM_GETLINK == 18 && RTM_GETADDR == 22, "routing netlink message types");

struct LinkPair {
  int index;
  size_t mac_len;  // length of the link's hardware address; only 6 can match an adapter
  unsigned char mac[OXA_MAC_ADDR_LEN];
};

struct AddressPair {
  int index;
  unsigned char ip[16];
};

// What the two dumps found: at most kMaxPairs of each, in the kernel's order.
struct DumpAnswers {
  LinkPair links[kMaxPairs] = {};
  int link_count = 0;
  AddressPair addresses[kMaxPairs] = {};
  int address_count = 0;

  void AddLink(nlmsghdr* message);
  void AddAddress(nlmsghdr* message);
};

void DumpAnswers::AddLink(nlmsghdr* message) {
  if (link_count >= kMaxPairs || message->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return;
  ifinfomsg* info = static_cast<ifinfomsg*>(NLMSG_DATA(message));
  int attr_bytes = static_cast<int>(IFLA_PAYLOAD(message));
  for (rtattr* attr = IFLA_RTA(info); RTA_OK(attr, attr_bytes); attr = RTA_NEXT(attr, attr_bytes)) {
    if (attr->rta_type != IFLA_ADDRESS) continue;
    LinkPair& link = links[link_count++];
    link.index = info->ifi_index;
    link.mac_len = RTA_PAYLOAD(attr);
    memcpy(link.mac, RTA_DATA(attr), std::min(link.mac_len, sizeof link.mac));
    return;
  }
}

void DumpAnswers::AddAddress(nlmsghdr* message) {
  if (address_count >= kMaxPairs || message->nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg))) return;
  ifaddrmsg* info = static_cast<ifaddrmsg*>(NLMSG_DATA(message));
  if (info->ifa_family != AF_INET6) return;
  // IFA_LOCAL, when present, is the interface's own address and IFA_ADDRESS the peer's.
  rtattr* local = nullptr;
  rtattr* address = nullptr;
  int attr_bytes = static_cast<int>(IFA_PAYLOAD(message));
  for (rtattr* attr = IFA_RTA(info); RTA_OK(attr, attr_bytes); attr = RTA_NEXT(attr, attr_bytes)) {
    if (attr->rta_type == IFA_LOCAL) local = attr;
    if (attr->rta_type == IFA_ADDRESS) address = attr;
  }
  rtattr* own = local != nullptr ? local : address;
  if (own == nullptr || RTA_PAYLOAD(own) != sizeof(in6_addr)) return;
  AddressPair& pair = addresses[address_count++];
  pair.index = static_cast<int>(info->ifa_index);
  memcpy(pair.ip, RTA_DATA(own), sizeof pair.ip);
}

// A routing netlink socket for one query.
class RouteSocket {
 public:
  // Opens and binds the socket; false after printing the failing step.
  bool Open();
  // Sends a dump request of `type` for the IPv6 family; false with errno on failure.
  bool SendDumpRequest(uint16_t type, uint32_t seq);
  // Reads the answers to request `seq` into `answers` until the dump ends, an error is
  // reported, or the kernel stays silent for the receive time-out.
  void ReadDump(uint32_t seq, DumpAnswers* answers);
  void Close() { sock_.Close(); }

 private:
  bool Bind();
  // Receives the next datagram whole; its bytes, or null when none came. *len is its size.
  char* ReceiveDatagram(size_t* len);
  // True when the messages of one datagram end the dump of `seq`.
  bool HandleDatagram(char* data, size_t len, uint32_t seq, DumpAnswers* answers) const;

  ScopedSocket sock_{-1};
  uint32_t port_id_ = 0;
  alignas(nlmsghdr) char small_[kReceiveBytes];
  std::unique_ptr<char[]> large_;  // for datagrams above kReceiveBytes; grows, never shrinks
  size_t large_bytes_ = 0;
};

bool RouteSocket::Open() {
  sock_.Reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!sock_) {
    OXA_OutputDebug("trovik GetIPv6ToAdapterInfo_Inter_Posix error 0 socket,errno=%d\n", errno);
    return false;
  }
  if (!Bind()) {
    OXA_OutputDebug("trovik GetIPv6ToAdapterInfo_Inter_Posix error 1 bind,errno=%d\n", errno);
    return false;
  }
  return true;
}

bool RouteSocket::Bind() {
  sockaddr_nl local = {};
  local.nl_family = AF_NETLINK;
  local.nl_pid = static_cast<uint32_t>(getpid());
  auto* as_sockaddr = reinterpret_cast<sockaddr*>(&local);
  if (bind(sock_.get(), as_sockaddr, sizeof local) != 0) {
    // The process id is a port that only one socket of the process can hold at a time; a
    // concurrent query (or any netlink user of the process) may have it. Let the kernel pick.
    if (errno != EADDRINUSE) return false;
    local.nl_pid = 0;
    if (bind(sock_.get(), as_sockaddr, sizeof local) != 0) return false;
  }
  socklen_t len = sizeof local;
  if (getsockname(sock_.get(), as_sockaddr, &len) != 0) return false;
  port_id_ = local.nl_pid;
  return true;
}

bool RouteSocket::SendDumpRequest(uint16_t type, uint32_t seq) {
  struct {
    nlmsghdr header;
    rtgenmsg body;
  } request = {};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.body);
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = kDumpFlags;
  request.header.nlmsg_seq = seq;
  request.header.nlmsg_pid = port_id_;
  request.body.rtgen_family = AF_INET6;
  sockaddr_nl kernel = {};
  kernel.nl_family = AF_NETLINK;
  const ssize_t sent = RetryOnEintr([&] {
    return sendto(sock_.get(), &request, request.header.nlmsg_len, 0,
                  reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
  });
  return sent == static_cast<ssize_t>(request.header.nlmsg_len);
}

char* RouteSocket::ReceiveDatagram(size_t* len) {
  pollfd readable = {sock_.get(), POLLIN, 0};
  if (RetryOnEintr([&] { return poll(&readable, 1, kReceiveTimeoutMs); }) != 1) return nullptr;
  const ssize_t size = RetryOnEintr([&] {
    return recv(sock_.get(), small_, sizeof small_, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
  });
  if (size < 0) return nullptr;
  char* data = small_;
  size_t room = sizeof small_;
  if (static_cast<size_t>(size) > room) {
    if (static_cast<size_t>(size) > large_bytes_) {
      large_.reset(new (std::nothrow) char[size]);
      large_bytes_ = large_ ? static_cast<size_t>(size) : 0;
      if (!large_) return nullptr;
    }
    data = large_.get();
    room = large_bytes_;
  }
  sockaddr_nl sender = {};
  socklen_t sender_len = sizeof sender;
  const ssize_t got = RetryOnEintr([&] {
    return recvfrom(sock_.get(), data, room, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&sender),
                    &sender_len);
  });
  if (got < 0) return nullptr;
  // Only the kernel (port 0) answers dumps; anything else that reached the port is dropped.
  *len = sender.nl_pid == 0 ? static_cast<size_t>(got) : 0;
  return data;
}

bool RouteSocket::HandleDatagram(char* data, size_t len, uint32_t seq, DumpAnswers* answers) const {
  int remaining = static_cast<int>(len);
  for (nlmsghdr* message = reinterpret_cast<nlmsghdr*>(data); NLMSG_OK(message, remaining);
       message = NLMSG_NEXT(message, remaining)) {
    // Answers to an earlier request (a round that ended early) are not this dump's.
    if (message->nlmsg_seq != seq || message->nlmsg_pid != port_id_) continue;
    switch (message->nlmsg_type) {
      case NLMSG_DONE:
      case NLMSG_ERROR:
        return true;
      case RTM_NEWLINK:
        answers->AddLink(message);
        break;
      case RTM_NEWADDR:
        answers->AddAddress(message);
        break;
      default:
        break;
    }
  }
  return false;
}

void RouteSocket::ReadDump(uint32_t seq, DumpAnswers* answers) {
  for (;;) {
    size_t len = 0;
    char* data = ReceiveDatagram(&len);
    if (data == nullptr) return;  // time-out or receive error: the round ends
    if (HandleDatagram(data, len, seq, answers)) return;
  }
}

// Appends to `adapter`'s IPv6 list every collected address of link `index`. 0, or -1 when
// memory ran out.
int AppendAddresses(const DumpAnswers& answers, int index, OXA_ADAPTER_INFO_T* adapter) {
  OXA_IPV6_NODE_T** tail = &adapter->ipv6List;
  while (*tail != nullptr)
    tail = &(*tail)->next;
  for (int i = 0; i < answers.address_count; ++i) {
    if (answers.addresses[i].index != index) continue;
    OXA_IPV6_NODE_T* node = NewIpv6Node();
    if (node == nullptr) return -1;
    memcpy(node->ip, answers.addresses[i].ip, sizeof node->ip);
    *tail = node;
    tail = &node->next;
  }
  return 0;
}

OXA_ADAPTER_INFO_T* FindByMac(OXA_ADAPTER_INFO_T* list, const LinkPair& link) {
  if (link.mac_len != OXA_MAC_ADDR_LEN) return nullptr;
  for (; list != nullptr; list = list->next) {
    if (memcmp(list->mac, link.mac, OXA_MAC_ADDR_LEN) == 0) return list;
  }
  return nullptr;
}

}  // namespace

int AddIpv6Addresses(OXA_ADAPTER_INFO_T* list) {
  RouteSocket route;
  if (!route.Open()) return 0;  // the IPv4 result stands
  static constexpr uint16_t kRequests[kRounds] = {RTM_GETLINK, RTM_GETADDR};
  const uint32_t first_seq = static_cast<uint32_t>(time(nullptr));
  DumpAnswers answers;
  int rounds = 0;
  for (; rounds < kRounds; ++rounds) {
    const uint32_t seq = first_seq + static_cast<uint32_t>(rounds);
    if (!route.SendDumpRequest(kRequests[rounds], seq)) {
      OXA_OutputDebug("trovik GetIPv6ToAdapterInfo_Inter_Posix error 2 sendto,errno=%d\n", errno);
      break;
    }
    route.ReadDump(seq, &answers);
  }
  route.Close();
  fprintf(stderr, "loop[%d] find %d mac and %d ip\n", rounds, answers.link_count,
          answers.address_count);
  for (int i = 0; i < answers.link_count; ++i) {
    OXA_ADAPTER_INFO_T* adapter = FindByMac(list, answers.links[i]);
    if (adapter == nullptr) continue;  // a link without an IPv4 adapter
    if (AppendAddresses(answers, answers.links[i].index, adapter) != 0) return -1;
  }
  return 0;
}

}  // namespace internal
}  // namespace oxa
