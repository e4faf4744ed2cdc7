// The adapter list: one record per entry of the system's IPv4 interface list, built with the
// interface ioctls, to which the netlink part then adds the IPv6 addresses.
#include "net/adapter_info.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <new>
#include <utility>

#include "oxa_frame.h"
#include "oxa_netinfo.h"
#include "oxa_socket.h"

#include "frame/errno_util.h"
#include "net/adapter_netlink.h"

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(ifreq) * oxa::internal::kMaxInterfaces == 512, "interface list buffer");
static_assert(sizeof(OXA_IPV4_NODE_T) == 36, "IPv4 node is ABI");
static_assert(sizeof(OXA_IPV6_NODE_T) == 36, "IPv6 node is ABI");
static_assert(offsetof(OXA_IPV4_NODE_T, mask) == 20, "IPv4 node is ABI");
static_assert(sizeof(OXA_ADAPTER_INFO_T) == 300, "adapter record is ABI");
static_assert(offsetof(OXA_ADAPTER_INFO_T, index) == 4, "adapter record is ABI");
static_assert(offsetof(OXA_ADAPTER_INFO_T, name) == 8, "adapter record is ABI");
static_assert(offsetof(OXA_ADAPTER_INFO_T, macLen) == 268, "adapter record is ABI");
static_assert(offsetof(OXA_ADAPTER_INFO_T, mac) == 272, "adapter record is ABI");
static_assert(offsetof(OXA_ADAPTER_INFO_T, type) == 280, "adapter record is ABI");
static_assert(offsetof(OXA_ADAPTER_INFO_T, ipv4List) == 284, "adapter record is ABI");
static_assert(offsetof(OXA_ADAPTER_INFO_T, ipv6List) == 296, "adapter record is ABI");
#endif

namespace oxa {
namespace internal {
namespace {

// Every list node is allocated as this union, so one routine frees nodes of any list. Both
// node types are standard-layout and pointer-interconvertible with the union.
union AnyNode {
  OXA_IPV4_NODE_T v4;
  OXA_IPV6_NODE_T v6;
};
static_assert(sizeof(OXA_IPV4_NODE_T) == sizeof(OXA_IPV6_NODE_T), "all nodes have one size");

template <typename Node>
void FreeNodes(Node* node) {
  while (node != nullptr) {
    Node* next = node->next;
    delete reinterpret_cast<AnyNode*>(node);
    node = next;
  }
}

void CopyName(const ifreq& entry, OXA_ADAPTER_INFO_T* record) {
  memcpy(record->name, entry.ifr_name, strnlen(entry.ifr_name, IFNAMSIZ));
}

bool AddressText(const sockaddr& address, char (&text)[OXA_IPV4_TEXT_LEN]) {
  sockaddr_in in4;
  memcpy(&in4, &address, sizeof in4);
  return inet_ntop(AF_INET, &in4.sin_addr, text, sizeof text) != nullptr;
}

// The record's one IPv4 node: address, then netmask. 0, or -1 when a step failed.
int AddIpv4Node(int fd, const ifreq& entry, OXA_ADAPTER_INFO_T* record) {
  ifreq req = entry;
  if (ioctl(fd, SIOCGIFADDR, &req) != 0) return -1;
  OXA_IPV4_NODE_T* node = NewIpv4Node();
  if (node == nullptr) return -1;
  record->ipv4List = node;  // owned by the record from here on
  if (!AddressText(req.ifr_addr, node->ip)) return -1;
  req = entry;
  if (ioctl(fd, SIOCGIFNETMASK, &req) != 0) return -1;
  return AddressText(req.ifr_netmask, node->mask) ? 0 : -1;
}

// One record for the interface at `position`; null after printing the failing step.
AdapterList MakeRecord(int fd, const ifreq& entry, unsigned int position) {
  AdapterList record(new (std::nothrow) OXA_ADAPTER_INFO_T());
  if (!record) {
    OXA_OutputDebug("trovik GetAdapterInfo_Inter_Posix new Error 3\n");
    return nullptr;
  }
  record->macLen = OXA_MAC_ADDR_LEN;
  record->index = position;
  CopyName(entry, record.get());
  ifreq req = entry;
  if (ioctl(fd, SIOCGIFHWADDR, &req) != 0) {
    OXA_OutputDebug("trovik GetAdapterInfo_Inter_Posix ioctl Error 4\n");
    return nullptr;
  }
  memcpy(record->mac, req.ifr_hwaddr.sa_data, OXA_MAC_ADDR_LEN);
  if (AddIpv4Node(fd, entry, record.get()) != 0) {
    OXA_OutputDebug("trovik GetAdapterInfo_Inter_Posix GetIpList_Inter_Posix Error 5\n");
    return nullptr;
  }
  return record;
}

// The IPv4 part: records from the last interface entry to the first, in that order.
int BuildIpv4List(AdapterList* adapters) {
  ScopedSocket sock(OpenInterfaceSocket());
  if (!sock) {
    OXA_OutputDebug("trovik GetAdapterInfo_Inter_Posix OXA_CreateSocket Error 1\n");
    return -1;
  }
  ifreq reqs[kMaxInterfaces];
  const int count = ListInterfaces(sock.get(), reqs);
  if (count < 0) {
    OXA_OutputDebug("trovik GetAdapterList_Inter_Posix ioctl error 1\n");
    sock.Close();
    OXA_OutputDebug("trovik GetAdapterInfo_Inter_Posix GetAdapterList_Inter_Posix Error 2\n");
    return -1;
  }
  AdapterList list;
  OXA_ADAPTER_INFO_T* last = nullptr;
  for (int i = count - 1; i >= 0; --i) {
    AdapterList record = MakeRecord(sock.get(), reqs[i], static_cast<unsigned int>(i));
    if (!record) return -1;  // the socket closes and the list built so far is freed
    OXA_ADAPTER_INFO_T* added = record.release();
    if (last == nullptr) {
      list.reset(added);
    } else {
      last->next = added;
    }
    last = added;
  }
  *adapters = std::move(list);
  return 0;
}

}  // namespace

void ScopedSocket::Close() {
  if (fd_ < 0) return;
  oxa::internal::ErrnoSaver keep;
  close(fd_);
  fd_ = -1;
}

int OpenInterfaceSocket() { return OXA_CreateSocket(AF_INET, SOCK_DGRAM, 0); }

int ListInterfaces(int fd, ifreq (&reqs)[kMaxInterfaces]) {
  memset(reqs, 0, sizeof reqs);
  ifconf conf = {};
  conf.ifc_len = static_cast<int>(sizeof reqs);
  conf.ifc_req = reqs;
  if (ioctl(fd, SIOCGIFCONF, &conf) != 0) return -1;
  return conf.ifc_len / static_cast<int>(sizeof(ifreq));
}

OXA_IPV4_NODE_T* NewIpv4Node() {
  AnyNode* node = new (std::nothrow) AnyNode();
  return node == nullptr ? nullptr : &node->v4;
}

OXA_IPV6_NODE_T* NewIpv6Node() {
  AnyNode* node = new (std::nothrow) AnyNode();
  if (node == nullptr) return nullptr;
  // Make v6 the active member; the bytes stay zero.
  return new (&node->v6) OXA_IPV6_NODE_T();
}

}  // namespace internal
}  // namespace oxa

// ---- C entry points -------------------------------------------------------

extern "C" {

OXA_API int OXA_GetAdapterInfo(OXA_ADAPTER_INFO_T** list) {
  if (list == nullptr) return OXA_ERROR;
  oxa::internal::AdapterList adapters;
  if (oxa::internal::BuildIpv4List(&adapters) != 0) return OXA_ERROR;
  if (oxa::internal::AddIpv6Addresses(adapters.get()) != 0) return OXA_ERROR;
  *list = adapters.release();
  return 0;
}

OXA_API int OXA_GetAdapterInfoEx(OXA_ADAPTER_INFO_T** list, int* af) {
  if (list == nullptr || af == nullptr) return OXA_ERROR;
  OXA_ADAPTER_INFO_T* found = nullptr;
  if (OXA_GetAdapterInfo(&found) != 0) return OXA_ERROR;
  bool has_ipv4 = false;
  bool has_ipv6 = false;
  for (const OXA_ADAPTER_INFO_T* adapter = found; adapter != nullptr; adapter = adapter->next) {
    has_ipv4 = has_ipv4 || adapter->ipv4List != nullptr;
    has_ipv6 = has_ipv6 || adapter->ipv6List != nullptr;
  }
  if (has_ipv4 && has_ipv6) {
    *af = 101;  // OXA_AF_DUAL
  } else if (has_ipv4) {
    *af = AF_INET;
  } else if (has_ipv6) {
    *af = AF_INET6;
  }
  *list = found;
  return 0;
}

OXA_API int OXA_FreeAdapterInfo(OXA_ADAPTER_INFO_T* list) {
  while (list != nullptr) {
    OXA_ADAPTER_INFO_T* next = list->next;
    oxa::internal::FreeNodes(list->ipv4List);
    oxa::internal::FreeNodes(list->reservedList1);
    oxa::internal::FreeNodes(list->reservedList2);
    oxa::internal::FreeNodes(list->ipv6List);
    delete list;
    list = next;
  }
  return 0;
}

}  // extern "C"
