// Sending and receiving: thin wrappers, and the whole-buffer loops driven by OXA_PollEx. The
// loops hand one time-out budget to successive waits; OXA_PollEx shrinks it as they wait.
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "oxa_socket.h"

#include "frame/socket_address.h"
#include "net/descriptor.h"

namespace {

// One wait for `events` on fd; revents receives what was reported.
int WaitFor(int fd, short events, unsigned int* timeout_ms, short* revents) {
  pollfd wait = {fd, events, 0};
  const int ready = OXA_PollEx(&wait, 1, timeout_ms);
  *revents = wait.revents;
  return ready;
}

// Sends what goes out without blocking: on a blocking socket a send of the whole remainder
// would wait for the peer and ignore the budget. -1 with EAGAIN when nothing fitted after all.
int SendWhatFits(int fd, const char* data, int len) {
  return static_cast<int>(send(fd, data, static_cast<size_t>(len), MSG_NOSIGNAL | MSG_DONTWAIT));
}

bool NothingFitted(int sent) { return sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK); }

}  // namespace

using oxa::internal::IsBadDescriptor;
using oxa::internal::IsBadLength;

// ---- C entry points ----------------------------------------------------------------------

extern "C" {

OXA_API int OXA_Send(int fd, const void* buf, int len) {
  if (IsBadLength(len)) return OXA_ERROR;
  return static_cast<int>(send(fd, buf, static_cast<size_t>(len), MSG_NOSIGNAL));
}

OXA_API int OXA_Recv(int fd, void* buf, int len) {
  if (IsBadLength(len)) return OXA_ERROR;
  return static_cast<int>(recv(fd, buf, static_cast<size_t>(len), 0));
}

OXA_API int OXA_Sendn(int fd, const void* buf, int len, unsigned int timeout_ms) {
  if (IsBadDescriptor(fd) || IsBadLength(len)) return OXA_ERROR;
  if (len == 0) return 0;
  const char* data = static_cast<const char*>(buf);
  int sent = 0;
  int ready;
  do {
    short revents = 0;
    ready = WaitFor(fd, POLLWRNORM, &timeout_ms, &revents);
    if (ready > 0) {
      if ((revents & POLLWRNORM) == 0) break;
      const int n = SendWhatFits(fd, data + sent, len - sent);
      if (NothingFitted(n)) continue;  // readiness taken by another writer: wait again
      if (n < 1) break;
      sent += n;
      if (sent == len) break;
    } else if (ready < 0) {
      break;
    }
  } while (timeout_ms != 0);  // OXA_INFINITE is never written down, so it never runs out
  if (sent != 0) return sent;
  // Nothing went out: only a failed poll is an error; a failed send reads as "nothing sent".
  return ready < 0 ? OXA_ERROR : 0;
}

OXA_API int OXA_RecvWithTimeOut(int fd, void* buf, int len, unsigned int timeout_ms) {
  if (IsBadDescriptor(fd) || IsBadLength(len)) return OXA_ERROR;
  short revents = 0;
  const int ready = WaitFor(fd, POLLRDNORM, &timeout_ms, &revents);
  if (ready == 0) return 0;
  if (ready < 0 || (revents & POLLRDNORM) == 0) return OXA_ERROR;
  const int n = OXA_Recv(fd, buf, len);
  return n > 0 ? n : OXA_ERROR;  // 0 is a closed peer
}

OXA_API int OXA_Recvn(int fd, void* buf, int len, unsigned int timeout_ms) {
  if (IsBadDescriptor(fd) || IsBadLength(len)) return OXA_ERROR;
  if (len == 0) return 0;
  char* data = static_cast<char*>(buf);
  int received = 0;
  do {
    short revents = 0;
    const int ready = WaitFor(fd, POLLRDNORM, &timeout_ms, &revents);
    if (ready < 0) return OXA_ERROR;
    if (ready > 0) {
      if ((revents & POLLRDNORM) == 0) return OXA_ERROR;
      const int n = OXA_Recv(fd, data + received, len - received);
      if (n < 1) return OXA_ERROR;  // closed peer or error: the partial data is dropped
      received += n;
      if (received == len) return len;
    }
  } while (timeout_ms != 0);
  return received;
}

OXA_API int OXA_SendTo(int fd, const void* buf, int len, const OXA_ADDR_T* to) {
  if (IsBadLength(len)) return OXA_ERROR;
  const sockaddr* dest = to != nullptr ? &to->sa : nullptr;
  const socklen_t dest_len = to != nullptr ? oxa::internal::SystemAddrLen(to) : 0;
  return static_cast<int>(sendto(fd, buf, static_cast<size_t>(len), 0, dest, dest_len));
}

OXA_API int OXA_RecvFrom(int fd, void* buf, int len, OXA_ADDR_T* from) {
  if (IsBadLength(len)) return OXA_ERROR;
  if (from == nullptr) {
    return static_cast<int>(recvfrom(fd, buf, static_cast<size_t>(len), 0, nullptr, nullptr));
  }
  OXA_ADDR_T sender;
  memset(&sender, 0, sizeof sender);
  socklen_t sender_len = oxa::internal::kMaxAddrLen;
  const int n =
      static_cast<int>(recvfrom(fd, buf, static_cast<size_t>(len), 0, &sender.sa, &sender_len));
  if (n >= 0) *from = sender;
  return n;
}

OXA_API int OXA_Ioctl(int fd, int request, unsigned long arg) {
  return ioctl(fd, static_cast<unsigned long>(request), arg);
}

}  // extern "C"
