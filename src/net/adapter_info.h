// Pieces shared by the host and adapter queries: an owned socket, the IPv4 interface list,
// the one allocation routine for list nodes, and the owner of a half-built adapter list.
#ifndef OXA_SRC_NET_ADAPTER_INFO_H_
#define OXA_SRC_NET_ADAPTER_INFO_H_

#include <net/if.h>

#include <memory>

#include "oxa_netinfo.h"

namespace oxa {
namespace internal {

// Owns one socket descriptor and closes it when it goes, keeping errno as the failing call
// before the close left it.
class ScopedSocket {
 public:
  explicit ScopedSocket(int fd) : fd_(fd) {}
  ~ScopedSocket() { Close(); }
  ScopedSocket(const ScopedSocket&) = delete;
  ScopedSocket& operator=(const ScopedSocket&) = delete;

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }
  // Closes the descriptor held so far, if any, and takes fd.
  void Reset(int fd) {
    Close();
    fd_ = fd;
  }
  void Close();

 private:
  int fd_;
};

// The IPv4 UDP socket (OXA_CreateSocket(2, 2, 0)) that the interface ioctls go through; -1
// with errno on failure.
int OpenInterfaceSocket();

// Room for 16 interface requests: 512 bytes in the 32-bit product.
constexpr int kMaxInterfaces = 16;

// Fills reqs from the system's IPv4 interface list (SIOCGIFCONF) and returns the number of
// entries, or -1 with errno when the ioctl fails. Entries beyond the 16th are not seen.
int ListInterfaces(int fd, ifreq (&reqs)[kMaxInterfaces]);

// A zeroed node of the size shared by all adapter lists, or null when memory is short.
OXA_IPV4_NODE_T* NewIpv4Node();
OXA_IPV6_NODE_T* NewIpv6Node();

struct AdapterListDeleter {
  void operator()(OXA_ADAPTER_INFO_T* list) const { OXA_FreeAdapterInfo(list); }
};
// A list of adapter records (and their nodes) that is freed unless released to the caller.
using AdapterList = std::unique_ptr<OXA_ADAPTER_INFO_T, AdapterListDeleter>;

}  // namespace internal
}  // namespace oxa

#endif  // OXA_SRC_NET_ADAPTER_INFO_H_
