// The address record: construction from text, integers, system addresses and sockets, and the
// getters and printers.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>

#include "oxa_addr.h"

#include "frame/socket_address.h"
#include "net/addr_text.h"
#include "net/descriptor.h"

// The record is handed to the system as it is: it must be the system's socket addresses.
static_assert(sizeof(OXA_ADDR_T) == sizeof(sockaddr_in6), "address record is as large as IPv6");
static_assert(offsetof(OXA_ADDR_T, in4) == 0 && offsetof(OXA_ADDR_T, in6) == 0,
              "both forms start at the record's start");

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_ADDR_T) == 28, "address record is ABI");
static_assert(alignof(OXA_ADDR_T) == 4, "address record is ABI");
static_assert(offsetof(sockaddr_in, sin_family) == 0, "family first");
static_assert(offsetof(sockaddr_in, sin_port) == 2, "then the port");
static_assert(offsetof(sockaddr_in, sin_addr) == 4, "IPv4 address");
static_assert(offsetof(sockaddr_in6, sin6_flowinfo) == 4, "IPv6 flow information");
static_assert(offsetof(sockaddr_in6, sin6_addr) == 8, "IPv6 address");
static_assert(offsetof(sockaddr_in6, sin6_scope_id) == 24, "IPv6 scope");
static_assert(sizeof(OXA_ADDR_INFO_T) == 24, "address view is ABI");
static_assert(offsetof(OXA_ADDR_INFO_T, addr) == 4, "address view is ABI");
static_assert(offsetof(OXA_ADDR_INFO_T, port) == 20, "address view is ABI");
#endif

namespace {

// The static buffer of OXA_GetAddrString, shared by every caller and thread.
char g_addr_string[128];

void SetFamilyAndPort(OXA_ADDR_T* addr, int family, uint16_t port_be) {
  addr->sa.sa_family = static_cast<sa_family_t>(family);
  addr->in4.sin_port = port_be;  // same place in both forms
}

// Empty text: the wildcard of the family.
int MakeWildcard(int af, uint16_t port_be, OXA_ADDR_T* addr) {
  if (af == AF_INET) {
    SetFamilyAndPort(addr, AF_INET, port_be);
    addr->in4.sin_addr.s_addr = htonl(INADDR_ANY);
    return 0;
  }
  if (af == AF_INET6 || af == OXA_AF_DUAL) {
    SetFamilyAndPort(addr, AF_INET6, port_be);
    addr->in6.sin6_addr = in6addr_any;
    return 0;
  }
  return OXA_ERROR;
}

// Text that is not IPv6-like is IPv4, whatever family was asked for.
int MakeIpv4(const char* text, uint16_t port_be, OXA_ADDR_T* addr) {
  const in_addr_t ip = inet_addr(text);
  // All ones is inet_addr's failure value and also 255.255.255.255: both are refused.
  if (ip == INADDR_NONE) return OXA_ERROR;
  SetFamilyAndPort(addr, AF_INET, port_be);
  addr->in4.sin_addr.s_addr = ip;
  return 0;
}

int MakeIpv6(const char* text, bool dual, uint16_t port_be, OXA_ADDR_T* addr) {
  SetFamilyAndPort(addr, AF_INET6, port_be);
  if (dual && (strcmp(text, "::") == 0 || strcmp(text, "0.0.0.0") == 0)) {
    addr->in6.sin6_addr = in6addr_any;
    return 0;
  }
  return oxa::internal::ParseColonHex(text, addr->in6.sin6_addr.s6_addr) ? 0 : OXA_ERROR;
}

int MakeFromText(int af, const char* text, uint16_t port_be, OXA_ADDR_T* addr) {
  const bool ipv6_like = strchr(text, ':') != nullptr || strcmp(text, "0.0.0.0") == 0;
  if (!ipv6_like || (af == AF_INET && strchr(text, ':') == nullptr)) {
    return MakeIpv4(text, port_be, addr);
  }
  if (af == OXA_AF_DUAL || af == AF_INET6) return MakeIpv6(text, af == OXA_AF_DUAL, port_be, addr);
  return OXA_ERROR;  // a colon with family 2, or an unknown family
}

}  // namespace

// ---- C entry points ----------------------------------------------------------------------

extern "C" {

OXA_API int OXA_MakeAddrByString(int af, const char* text, unsigned short port, OXA_ADDR_T* addr) {
  if (addr == nullptr) return OXA_ERROR;
  memset(addr, 0, sizeof *addr);
  af = OXA_GetAf_Inner(af);
  const uint16_t port_be = htons(port);
  if (text == nullptr || text[0] == '\0') return MakeWildcard(af, port_be, addr);
  return MakeFromText(af, text, port_be, addr);
}

OXA_API int OXA_MakeAddr4ByInt(unsigned int ip, unsigned short port, OXA_ADDR_T* addr) {
  if (addr == nullptr) return OXA_ERROR;
  memset(addr, 0, sizeof *addr);
  SetFamilyAndPort(addr, AF_INET, htons(port));
  addr->in4.sin_addr.s_addr = ip;
  return 0;
}

OXA_API int OXA_MakeAddr6ByInt(const unsigned char ip[16], unsigned short port, OXA_ADDR_T* addr) {
  if (ip == nullptr || addr == nullptr) return OXA_ERROR;
  memset(addr, 0, sizeof *addr);
  SetFamilyAndPort(addr, AF_INET6, htons(port));
  memcpy(addr->in6.sin6_addr.s6_addr, ip, 16);
  return 0;
}

OXA_API int OXA_MakeAddr(const void* sysaddr, int len, OXA_ADDR_T* addr) {
  if (sysaddr == nullptr || addr == nullptr || len == 0) return OXA_ERROR;
  if (oxa::internal::IsBadLength(len)) return OXA_ERROR;
  memcpy(addr, sysaddr, static_cast<size_t>(len));
  return 0;
}

OXA_API int OXA_SetAddrPort(OXA_ADDR_T* addr, unsigned short port) {
  if (addr == nullptr) return OXA_ERROR;
  addr->in4.sin_port = htons(port);
  return 0;
}

OXA_API int OXA_GetAddrType(const OXA_ADDR_T* addr) {
  return addr == nullptr ? OXA_ERROR : addr->sa.sa_family;
}

OXA_API unsigned short OXA_GetAddrPort(const OXA_ADDR_T* addr) {
  return addr == nullptr ? 0 : ntohs(addr->in4.sin_port);
}

OXA_API int OXA_GetAddr4Int(const OXA_ADDR_T* addr, unsigned int* ip) {
  if (addr == nullptr || ip == nullptr || addr->sa.sa_family != AF_INET) return OXA_ERROR;
  *ip = addr->in4.sin_addr.s_addr;
  return 0;
}

OXA_API int OXA_GetAddr6Int(const OXA_ADDR_T* addr, unsigned char ip[16]) {
  if (addr == nullptr || ip == nullptr || addr->sa.sa_family == AF_INET) return OXA_ERROR;
  memcpy(ip, addr->in6.sin6_addr.s6_addr, 16);
  return 0;
}

OXA_API int OXA_GetAddrInfo(const OXA_ADDR_T* addr, OXA_ADDR_INFO_T* info) {
  if (addr == nullptr || info == nullptr) return OXA_ERROR;
  info->family = addr->sa.sa_family;
  if (addr->sa.sa_family == AF_INET) {
    memcpy(info->addr, &addr->in4.sin_addr.s_addr, 4);  // the other 12 bytes stay as they were
  } else {
    memcpy(info->addr, addr->in6.sin6_addr.s6_addr, 16);
  }
  info->port = ntohs(addr->in4.sin_port);
  return 0;
}

OXA_API char* OXA_GetAddrStringEx(const OXA_ADDR_T* addr, char* buf, int len) {
  if (addr == nullptr || buf == nullptr || len == 0) return nullptr;
  if (addr->sa.sa_family == AF_INET) {
    return OXA_InetNtop(AF_INET, reinterpret_cast<const unsigned char*>(&addr->in4.sin_addr), buf,
                        len);
  }
  if (addr->sa.sa_family == AF_INET6) {
    return OXA_InetNtop(AF_INET6, addr->in6.sin6_addr.s6_addr, buf, len);
  }
  return nullptr;
}

OXA_API char* OXA_GetAddrString(const OXA_ADDR_T* addr) {
  memset(g_addr_string, 0, sizeof g_addr_string);
  return OXA_GetAddrStringEx(addr, g_addr_string, sizeof g_addr_string);
}

OXA_API int OXA_GetAddrBySockFd(int fd, OXA_ADDR_T* local, OXA_ADDR_T* peer) {
  if (local == nullptr && peer == nullptr) return OXA_ERROR;
  OXA_ADDR_T found;
  socklen_t len = oxa::internal::kMaxAddrLen;
  if (peer != nullptr) {
    memset(&found, 0, sizeof found);
    if (getpeername(fd, &found.sa, &len) != 0) return OXA_ERROR;
    *peer = found;
  }
  if (local == nullptr) return 0;
  memset(&found, 0, sizeof found);
  len = oxa::internal::kMaxAddrLen;
  if (getsockname(fd, &found.sa, &len) != 0) return OXA_ERROR;
  *local = found;
  return 0;
}

}  // extern "C"
