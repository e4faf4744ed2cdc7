// Waiting on several descriptors: select and poll wrappers, and the signal-proof poll that the
// socket loops are built on.
#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <sys/select.h>

#include "oxa_socket.h"
#include "oxa_time.h"

#include "frame/errno_util.h"
#include "net/descriptor.h"

namespace {

// A finite time-out beyond what poll's int can hold waits as long as poll can.
int PollTimeout(unsigned int timeout_ms) {
  return timeout_ms > static_cast<unsigned int>(INT_MAX) ? INT_MAX : static_cast<int>(timeout_ms);
}

int PollForever(pollfd* fds, int n) {
  return oxa::internal::RetryOnEintr([&] { return poll(fds, static_cast<nfds_t>(n), -1); });
}

}  // namespace

// ---- C entry points ----------------------------------------------------------------------

extern "C" {

OXA_API int OXA_FdIsSet(int fd, fd_set* set) {
  if (set == nullptr || fd < 0 || fd >= FD_SETSIZE) return 0;
  // The set read as 32-bit words, whatever word size the system's fd_set uses.
  uint32_t word = 0;
  memcpy(&word, reinterpret_cast<const unsigned char*>(set) + (fd / 32) * sizeof word, sizeof word);
  return ((word >> (fd % 32)) & 1u) != 0 ? 1 : 0;
}

OXA_API int OXA_Select(int nfds, fd_set* r, fd_set* w, fd_set* e, struct timeval* timeout) {
  if (timeout == nullptr) return select(nfds, r, w, e, nullptr);
  timeval copy = *timeout;  // the system may change it; the caller's value stays
  return select(nfds, r, w, e, &copy);
}

OXA_API int OXA_SelectEx(int nfds, fd_set* r, fd_set* w, fd_set* e, struct timeval* timeout) {
  return select(nfds, r, w, e, timeout);
}

OXA_API int OXA_Poll(struct pollfd* fds, int n, int timeout_ms) {
  if (oxa::internal::IsBadLength(n)) return OXA_ERROR;
  return poll(fds, static_cast<nfds_t>(n), timeout_ms);
}

// Each interrupted poll costs what it waited; the remaining time is written back, so callers
// that loop share one budget among their waits.
OXA_API int OXA_PollEx(struct pollfd* fds, int n, unsigned int* timeout_ms) {
  if (oxa::internal::IsBadLength(n)) return OXA_ERROR;
  if (timeout_ms == nullptr || *timeout_ms == OXA_INFINITE) return PollForever(fds, n);
  int ready;
  uint64_t elapsed;
  for (;;) {
    const uint64_t start = OXA_GetTimeTick64();
    ready = poll(fds, static_cast<nfds_t>(n), PollTimeout(*timeout_ms));
    {
      oxa::internal::ErrnoSaver keep;  // poll's
      elapsed = OXA_GetTimeTick64() - start;
    }
    if (ready >= 0 || errno != EINTR) break;
    *timeout_ms = elapsed < *timeout_ms ? *timeout_ms - static_cast<unsigned int>(elapsed) : 0;
    if (*timeout_ms < 1) break;
  }
  *timeout_ms = elapsed < *timeout_ms ? *timeout_ms - static_cast<unsigned int>(elapsed) : 0;
  return ready;
}

}  // extern "C"
