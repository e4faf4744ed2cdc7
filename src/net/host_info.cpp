// The host's name, the hardware address behind an IPv4 address, and byte-order conversion.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "oxa_frame.h"
#include "oxa_netinfo.h"

#include "net/adapter_info.h"

namespace oxa {
namespace internal {
namespace {

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

OXA_API unsigned short OXA_Htons(unsigned short value) { return htons(value); }
OXA_API unsigned short OXA_Ntohs(unsigned short value) { return ntohs(value); }
OXA_API unsigned int OXA_Htonl(unsigned int value) { return htonl(value); }
OXA_API unsigned int OXA_Ntohl(unsigned int value) { return ntohl(value); }

}  // extern "C"
