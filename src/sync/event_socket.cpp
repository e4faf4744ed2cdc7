// Socket events: an event that OXA_EventSelect tied to a socket. Its readiness comes from the
// socket's state, judged after a multiple wait and kept in the event as one network-event bit.
#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "oxa_event.h"
#include "oxa_frame.h"
#include "oxa_socket.h"
#include "oxa_sync.h"

#include "sync/event_internal.h"

using oxa::internal::ErrnoSaver;

namespace {

// Selections that are answered by looking at the unread byte count.
constexpr int32_t kReadOrClose = OXA_FD_READ | OXA_FD_CLOSE;
// Selections that need the socket polled for reading.
constexpr int32_t kReadInterest = OXA_FD_READ | OXA_FD_ACCEPT | OXA_FD_CLOSE;
constexpr unsigned int kRecursiveLock = 0xFFFFFFFFu;

uint32_t PollInterestFor(int32_t selected) {
  uint32_t interest = 0;
  if (selected & OXA_FD_WRITE) interest |= OXA_EVENT_POLL_WRITE;
  if (selected & kReadInterest) interest |= OXA_EVENT_POLL_READ;
  if (selected & OXA_FD_CONNECT) interest |= OXA_EVENT_POLL_READ | OXA_EVENT_POLL_WRITE;
  return interest;
}

// A readable socket that selected reading or closing: unread bytes mean data, none means the
// peer closed.
void JudgeReadable(OXA_EVENT_T* event) {
  int unread = 0;
  if (ioctl(event->iSocket, FIONREAD, &unread) != 0) {
    event->lTriggered = 0;
    event->iErrorCode = errno;
    return;
  }
  event->iErrorCode = 0;
  event->lTriggered = unread < 1 ? OXA_FD_CLOSE : OXA_FD_READ;
}

// A finished connect. Only a clean result is recorded: a pending error leaves the stored
// error as it was (reading SO_ERROR clears it in the socket all the same).
void JudgeConnect(OXA_EVENT_T* event) {
  int pending = 0;
  socklen_t length = sizeof pending;
  if (getsockopt(event->iSocket, SOL_SOCKET, SO_ERROR, &pending, &length) == 0 && pending == 0) {
    event->iErrorCode = 0;
  }
  event->lTriggered = OXA_FD_CONNECT;
}

}  // namespace

// ---- Internal entry points --------------------------------------------------

OXA_API int OXA_GetEventTriggeredFlag_Inter(OXA_EVENT_T* event, pollfd* entry) {
  if (event == nullptr || entry == nullptr) return OXA_ERROR;
  const bool readable = (entry->revents & POLLRDNORM) != 0;
  const bool writable = (entry->revents & POLLWRNORM) != 0;
  if (!readable && !writable) return OXA_ERROR;
  const int32_t selected = event->lNetworkEvents;
  if (readable) {
    if (event->iPipeFd[0] != -1) return 0;  // a plain event: its byte is the signal
    if (!(selected & OXA_FD_CONNECT) && (selected & kReadOrClose)) {
      JudgeReadable(event);
      return 0;
    }
  }
  if (selected & OXA_FD_CONNECT) {
    JudgeConnect(event);
    return 0;
  }
  if (writable && (selected & OXA_FD_WRITE)) {
    event->iErrorCode = 0;
    event->lTriggered = OXA_FD_WRITE;
    return 0;
  }
  if (selected & OXA_FD_ACCEPT) {
    event->lTriggered = OXA_FD_ACCEPT;
    return 0;
  }
  return OXA_ERROR;
}

// ---- C entry points ---------------------------------------------------------

extern "C" {

OXA_API int OXA_EventSelect(int socket, OXA_EVENT_HANDLE event, int network_events) {
  if (socket == -1 || event == nullptr || network_events == 0) {
    OXA_OutputDebug("trovik !!! OXA_EventSelect input param error return error 0\n");
    return OXA_ERROR;
  }
  for (int& fd : event->iPipeFd) {
    if (fd != -1) close(fd);
    fd = -1;
  }
  event->lNetworkEvents = network_events;
  event->iSocket = socket;
  OXA_SetNonBlock(socket, 1);  // not checked: a bad socket shows up in the waits
  event->uPollFlags = PollInterestFor(network_events);
  return 0;
}

OXA_API int OXA_EnumNetworkEvents(int socket, OXA_EVENT_HANDLE event, OXA_NETWORKEVENTS* result) {
  if (socket == -1 || event == nullptr || result == nullptr) {
    OXA_OutputDebug("trovik !!! OXA_EnumNetworkEvents input param error return error 0\n");
    return OXA_ERROR;
  }
  if (OXA_MutexCreate(&event->hLock, kRecursiveLock) != 0) {
    ErrnoSaver keep;
    OXA_OutputDebug("trovik !!! OXA_EnumNetworkEvents OXA_MutexCreate error return error %d 1\n",
                    keep.value());
    return OXA_ERROR;
  }
  OXA_WaitForSingleObject(event, 0);  // the result does not matter; a socket event has no pipe
  if (event->iErrorCode != 0 && (event->lNetworkEvents & OXA_FD_CONNECT)) {
    result->iErrorCode[OXA_FD_CONNECT_BIT] = event->iErrorCode;
  }
  result->lNetworkEvents = event->lTriggered;
  OXA_ClearEventMutex_Inter(event);
  return 0;
}

}  // extern "C"
