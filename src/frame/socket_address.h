// How an OXA_ADDR_T record meets the system's socket calls.
#ifndef OXA_SRC_FRAME_SOCKET_ADDRESS_H_
#define OXA_SRC_FRAME_SOCKET_ADDRESS_H_

#include <netinet/in.h>
#include <sys/socket.h>

#include "oxa_addr.h"

namespace oxa {
namespace internal {

// The length handed to the system with a record: the IPv4 form for family 2, the IPv6 form
// for anything else.
inline socklen_t SystemAddrLen(const OXA_ADDR_T* addr) {
  return addr->sa.sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

// The length offered to calls that write an address back (accept, getpeername, recvfrom).
constexpr socklen_t kMaxAddrLen = sizeof(sockaddr_in6);

}  // namespace internal
}  // namespace oxa

#endif  // OXA_SRC_FRAME_SOCKET_ADDRESS_H_
