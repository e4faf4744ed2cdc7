// Connecting with a time-out: a non-blocking connect, a wait for writability, and the pending
// socket error.
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "oxa_socket.h"

#include "frame/socket_address.h"

namespace {

// The outcome of waiting for a connection in progress: 0, or the errno value of the failure.
int AwaitConnection(int fd, unsigned int timeout_ms) {
  pollfd wait = {fd, POLLWRNORM, 0};
  const int ready = OXA_PollEx(&wait, 1, &timeout_ms);
  if (ready > 0) {
    // Ready but not writable: a refused or reset attempt, reported as a time-out.
    if ((wait.revents & POLLWRNORM) == 0) return ETIMEDOUT;
    int pending = 0;
    socklen_t len = sizeof pending;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &len) != 0) return errno;
    return pending;
  }
  if (ready == 0 || timeout_ms == 0) return ETIMEDOUT;
  return errno;  // the poll failed with time left
}

}  // namespace

// ---- C entry points ----------------------------------------------------------------------

extern "C" {

OXA_API int OXA_ConnectWithTimeOut(int fd, const OXA_ADDR_T* addr, unsigned int timeout_ms) {
  if (addr == nullptr) return OXA_ERROR;
  // Without a limit: a plain blocking connect whose length is the IPv4 form's whatever the
  // family, so IPv6 needs a finite time-out. Settled behaviour; keep it.
  if (timeout_ms == OXA_INFINITE) return connect(fd, &addr->sa, sizeof(sockaddr_in));

  OXA_SetNonBlock(fd, 1);
  // An immediate answer, success or failure, leaves the socket non-blocking on purpose.
  if (connect(fd, &addr->sa, oxa::internal::SystemAddrLen(addr)) == 0) return 0;
  if (errno != EINPROGRESS) return OXA_ERROR;

  const int error = AwaitConnection(fd, timeout_ms);
  OXA_SetNonBlock(fd, 0);
  if (error == 0) return 0;
  errno = error;
  return OXA_ERROR;
}

}  // extern "C"
