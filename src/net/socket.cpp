// Socket creation, binding, listening, accepting and blocking mode.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "oxa_socket.h"

#include "frame/socket_address.h"
#include "net/descriptor.h"

namespace {

// The system family for a family selector that OXA_GetAf_Inner has resolved. An unknown
// selector becomes AF_UNSPEC, which the system refuses.
int SystemFamily(int af) {
  if (af == AF_INET || af == AF_INET6) return af;
  if (af == OXA_AF_DUAL) return AF_INET6;
  return AF_UNSPEC;
}

// A dual-stack socket accepts IPv4 peers as mapped addresses: IPV6_V6ONLY must be off.
void AllowIpv4Peers(int fd) {
  int v6only = 0;
  socklen_t len = sizeof v6only;
  if (getsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &v6only, &len) != 0 || v6only == 0) return;
  const int off = 0;
  const int ret = setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
  printf("set IPV6_V6ONLY ret[%d]\n", ret);
  fflush(stdout);
}

}  // namespace

// ---- C entry points ----------------------------------------------------------------------

extern "C" {

OXA_API int OXA_CreateSocket(int af, int type, int protocol) {
  af = OXA_GetAf_Inner(af);
  // The caller chooses the socket flags (SOCK_CLOEXEC included) through `type`.
  const int fd = socket(SystemFamily(af), type, protocol);  // NOLINT(android-cloexec-socket)
  if (fd >= 0 && af == OXA_AF_DUAL) AllowIpv4Peers(fd);
  return fd;
}

OXA_API int OXA_ShutDown(int fd, int how) { return shutdown(fd, how); }

OXA_API int OXA_CloseSocket(int fd, int shutdown_first) {
  if (shutdown_first != 0) OXA_ShutDown(fd, SHUT_RDWR);
  return close(fd);
}

OXA_API int OXA_Bind(int fd, const OXA_ADDR_T* addr) {
  if (addr == nullptr) return OXA_ERROR;
  return bind(fd, &addr->sa, oxa::internal::SystemAddrLen(addr));
}

OXA_API int OXA_Listen(int fd, int backlog) { return listen(fd, backlog); }

OXA_API int OXA_Accept(int fd, OXA_ADDR_T* peer, unsigned int timeout_ms) {
  if (oxa::internal::IsBadDescriptor(fd)) return OXA_ERROR;
  if (timeout_ms != OXA_INFINITE) {
    pollfd wait = {fd, POLLRDNORM, 0};
    if (OXA_PollEx(&wait, 1, &timeout_ms) <= 0 || (wait.revents & POLLRDNORM) == 0) {
      return OXA_ERROR;
    }
  }
  if (peer == nullptr) return accept(fd, nullptr, nullptr);  // NOLINT(android-cloexec-accept)
  OXA_ADDR_T found;
  memset(&found, 0, sizeof found);
  socklen_t len = oxa::internal::kMaxAddrLen;
  const int conn = accept(fd, &found.sa, &len);  // NOLINT(android-cloexec-accept)
  if (conn >= 0) *peer = found;
  return conn;
}

OXA_API int OXA_SetNonBlock(int fd, int on) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return OXA_ERROR;
  const int wanted = on != 0 ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  return fcntl(fd, F_SETFL, wanted) < 0 ? OXA_ERROR : 0;
}

}  // extern "C"
