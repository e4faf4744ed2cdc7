// The host's name, the hardware address behind an IPv4 address, name resolution into address
// records, and byte-order conversion.
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>

#include "oxa_addr.h"
#include "oxa_frame.h"
#include "oxa_netinfo.h"

#include "net/adapter_info.h"

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_ADDRESS_INFO_T) == 52, "address answer is ABI");
static_assert(offsetof(OXA_ADDRESS_INFO_T, addr) == 16, "address answer is ABI");
static_assert(offsetof(OXA_ADDRESS_INFO_T, canonName) == 44, "address answer is ABI");
static_assert(offsetof(OXA_ADDRESS_INFO_T, next) == 48, "address answer is ABI");
static_assert(sizeof(OXA_ADDRESS_HINTS_T) == 48, "address hints are ABI");
static_assert(offsetof(OXA_ADDRESS_HINTS_T, canonName) == 44, "address hints are ABI");
#endif

namespace oxa {
namespace internal {
namespace {

struct SystemAnswersDeleter {
  void operator()(addrinfo* answers) const { freeaddrinfo(answers); }
};
using SystemAnswers = std::unique_ptr<addrinfo, SystemAnswersDeleter>;

struct AddressListDeleter {
  void operator()(OXA_ADDRESS_INFO_T* list) const { OXA_FreeAddressInfo(list); }
};
using AddressList = std::unique_ptr<OXA_ADDRESS_INFO_T, AddressListDeleter>;

// Copies a system socket address into a cleared record, never past the record's end.
void CopyAddress(const addrinfo& answer, OXA_ADDR_T* addr) {
  memset(addr, 0, sizeof *addr);
  if (answer.ai_addr == nullptr) return;
  memcpy(addr, answer.ai_addr, std::min<size_t>(answer.ai_addrlen, sizeof *addr));
}

// One answer copied into a new node; null (errno ENOMEM) when memory is short.
AddressList CopyAnswer(const addrinfo& answer) {
  AddressList node(new (std::nothrow) OXA_ADDRESS_INFO_T());
  if (!node) {
    errno = ENOMEM;
    return nullptr;
  }
  node->flags = answer.ai_flags;
  node->family = answer.ai_family;
  node->sockType = answer.ai_socktype;
  node->protocol = answer.ai_protocol;
  CopyAddress(answer, &node->addr);
  if (answer.ai_canonname != nullptr) {
    const size_t bytes = strlen(answer.ai_canonname) + 1;
    node->canonName = new (std::nothrow) char[bytes];
    if (node->canonName == nullptr) {
      errno = ENOMEM;
      return nullptr;
    }
    memcpy(node->canonName, answer.ai_canonname, bytes);
  }
  return node;
}

// The whole system list copied, in its order; null when memory ran out.
AddressList CopyAnswers(const addrinfo* answers, bool* failed) {
  AddressList list;
  OXA_ADDRESS_INFO_T* last = nullptr;
  for (; answers != nullptr; answers = answers->ai_next) {
    AddressList node = CopyAnswer(*answers);
    if (!node) {
      *failed = true;
      return nullptr;
    }
    OXA_ADDRESS_INFO_T* added = node.release();
    if (last == nullptr) {
      list.reset(added);
    } else {
      last->next = added;
    }
    last = added;
  }
  return list;
}

// The system's hints from the caller's: the first four fields as they are, the address with
// the length of its family, and the canonical-name pointer.
addrinfo SystemHints(const OXA_ADDRESS_HINTS_T& hints) {
  addrinfo system = {};
  system.ai_flags = hints.flags;
  system.ai_family = hints.family;
  system.ai_socktype = hints.sockType;
  system.ai_protocol = hints.protocol;
  system.ai_addrlen =
      hints.addr.sa.sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  system.ai_addr = const_cast<sockaddr*>(&hints.addr.sa);
  system.ai_canonname = hints.canonName;
  return system;
}

// The resolver's family for a selector of the library; -1 for an unknown one.
int ResolverFamily(int af) {
  switch (OXA_GetAf_Inner(af)) {
    case AF_INET:
      return AF_INET;
    case AF_INET6:
      return AF_INET6;
    case OXA_AF_DUAL:
      return AF_UNSPEC;
    default:
      return -1;
  }
}

int ResolveName(const char* name, int family, OXA_ADDR_T* addrs, unsigned int* count) {
  addrinfo hints = {};
  hints.ai_family = family;
  hints.ai_socktype = SOCK_STREAM;  // one answer per address, not one per socket type
  addrinfo* found = nullptr;
  if (getaddrinfo(name, nullptr, &hints, &found) != 0) return OXA_ERROR;
  const SystemAnswers answers(found);
  unsigned int stored = 0;
  for (const addrinfo* answer = found; answer != nullptr && stored < *count;
       answer = answer->ai_next) {
    if (answer->ai_family != AF_INET && answer->ai_family != AF_INET6) continue;
    CopyAddress(*answer, &addrs[stored++]);
  }
  if (stored == 0) return OXA_ERROR;
  *count = stored;
  return 0;
}

// True when the interface of `entry` carries the IPv4 address `ip` (network order).
bool CarriesAddress(int fd, const ifreq& entry, in_addr_t ip) {
  ifreq req = entry;
  if (ioctl(fd, SIOCGIFADDR, &req) != 0) return false;
  sockaddr_in in4;
  memcpy(&in4, &req.ifr_addr, sizeof in4);
  return in4.sin_addr.s_addr == ip;
}

int FindMac(in_addr_t ip, unsigned char* mac) {
  ScopedSocket sock(OpenInterfaceSocket());
  if (!sock) return OXA_ERROR;
  ifreq reqs[kMaxInterfaces];
  const int count = ListInterfaces(sock.get(), reqs);
  // Last entry first, as the adapter list is built.
  for (int i = count - 1; i >= 0; --i) {
    if (!CarriesAddress(sock.get(), reqs[i], ip)) continue;
    ifreq req = reqs[i];
    if (ioctl(sock.get(), SIOCGIFHWADDR, &req) != 0) continue;
    memcpy(mac, req.ifr_hwaddr.sa_data, OXA_MAC_ADDR_LEN);
    return 0;
  }
  return OXA_ERROR;
}

}  // namespace
}  // namespace internal
}  // namespace oxa

// ---- C entry points -------------------------------------------------------

extern "C" {

OXA_API int OXA_GetHostName(char* name, unsigned int len) {
  if (name == nullptr) return OXA_ERROR;
  return gethostname(name, len) == 0 ? 0 : OXA_ERROR;
}

OXA_API int OXA_GetMacAddr(const char* ipText, unsigned char mac[6], unsigned int* len) {
  if (ipText == nullptr || mac == nullptr || len == nullptr || *len == 0) {
    OXA_OutputDebug("trovik OXA_GetMacAddr parameter error, return OXA_ERROR\n");
    return OXA_ERROR;
  }
  *len = OXA_MAC_ADDR_LEN;
  return oxa::internal::FindMac(inet_addr(ipText), mac);
}

OXA_API int OXA_GetAddressInfo(const char* node, const char* service,
                               const OXA_ADDRESS_HINTS_T* hints, OXA_ADDRESS_INFO_T** result) {
  if (result == nullptr) return OXA_ERROR;
  addrinfo system_hints = {};
  if (hints != nullptr) system_hints = oxa::internal::SystemHints(*hints);
  addrinfo* found = nullptr;
  if (getaddrinfo(node, service, hints != nullptr ? &system_hints : nullptr, &found) != 0) {
    return OXA_ERROR;
  }
  const oxa::internal::SystemAnswers answers(found);
  bool failed = false;
  oxa::internal::AddressList list = oxa::internal::CopyAnswers(found, &failed);
  if (failed) return OXA_ERROR;
  *result = list.release();
  return 0;
}

OXA_API int OXA_FreeAddressInfo(OXA_ADDRESS_INFO_T* list) {
  while (list != nullptr) {
    OXA_ADDRESS_INFO_T* next = list->next;
    delete[] list->canonName;
    delete list;
    list = next;
  }
  return 0;
}

OXA_API int OXA_GetAddressByName(const char* name, int af, OXA_ADDR_T* addrs, unsigned int* count) {
  if (name == nullptr || addrs == nullptr || count == nullptr || *count == 0) return OXA_ERROR;
  const int family = oxa::internal::ResolverFamily(af);
  if (family < 0) return OXA_ERROR;
  return oxa::internal::ResolveName(name, family, addrs, count);
}

OXA_API unsigned short OXA_Htons(unsigned short value) { return htons(value); }
OXA_API unsigned short OXA_Ntohs(unsigned short value) { return ntohs(value); }
OXA_API unsigned int OXA_Htonl(unsigned int value) { return htonl(value); }
OXA_API unsigned int OXA_Ntohl(unsigned int value) { return ntohl(value); }

}  // extern "C"
