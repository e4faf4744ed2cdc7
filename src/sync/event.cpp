// Plain events: a pipe that holds at most one byte while the event is signalled, and the waits
// that poll it. Socket events (made by OXA_EventSelect) live in event_socket.cpp.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstddef>

#include "oxa_event.h"
#include "oxa_frame.h"
#include "oxa_sync.h"

#include "sync/event_internal.h"

using oxa::internal::ErrnoSaver;
using oxa::internal::EventLockHold;

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_EVENT_T) == 56, "event record is ABI");
static_assert(offsetof(OXA_EVENT_T, iSocket) == 8, "event record is ABI");
static_assert(offsetof(OXA_EVENT_T, uPollFlags) == 12, "event record is ABI");
static_assert(offsetof(OXA_EVENT_T, iErrorCode) == 28, "event record is ABI");
static_assert(offsetof(OXA_EVENT_T, hLock) == 32, "event record is ABI");
static_assert(sizeof(OXA_NETWORKEVENTS) == 28, "network-events record is ABI");
#endif
static_assert(POLLRDNORM == 0x40 && POLLWRNORM == 0x100, "poll bits are part of the contract");

namespace {

constexpr char kSignalByte[] = "e";
constexpr size_t kDrainChunk = 256;

// Frees a record with whatever it holds. Closing keeps errno, so this can run on failure paths.
void DestroyEvent(OXA_EVENT_T* event, bool destroy_lock) {
  ErrnoSaver keep;
  for (int& fd : event->iPipeFd) {
    if (fd != -1) close(fd);
    fd = -1;
  }
  if (destroy_lock) OXA_ClearEventMutex_Inter(event);
  free(event);
}

// Owns a record under construction; everything in it goes away unless it is released.
class PendingEvent {
 public:
  PendingEvent() : event_(static_cast<OXA_EVENT_T*>(malloc(sizeof(OXA_EVENT_T)))) {
    if (event_ != nullptr) {
      memset(event_, 0, sizeof *event_);
      event_->iPipeFd[0] = event_->iPipeFd[1] = -1;
      event_->iSocket = -1;
    }
  }
  ~PendingEvent() {
    if (event_ != nullptr) DestroyEvent(event_, lock_created_);
  }
  PendingEvent(const PendingEvent&) = delete;
  PendingEvent& operator=(const PendingEvent&) = delete;

  OXA_EVENT_T* get() const { return event_; }
  void LockCreated() { lock_created_ = true; }
  OXA_EVENT_T* Release() {
    OXA_EVENT_T* event = event_;
    event_ = nullptr;
    return event;
  }

 private:
  OXA_EVENT_T* event_;
  bool lock_created_ = false;
};

// The descriptors are close-on-exec so that a child process cannot keep an event alive, and
// non-blocking so that a drain racing with another can never block.
bool OpenPipe(OXA_EVENT_T* event) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  event->iPipeFd[0] = fds[0];
  event->iPipeFd[1] = fds[1];
  return true;
}

OXA_EVENT_T* CreateEventFailed() {
  ErrnoSaver keep;
  OXA_OutputDebug("trovik !!! OXA_CreateEvent return error %d 0\n", keep.value());
  return nullptr;
}

// The poll list of one multiple wait: the entries and, beside each, the index of its event.
class WaitList {
 public:
  // False when the events need more entries than the list holds.
  bool Build(int count, const OXA_EVENT_HANDLE* events) {
    for (int i = 0; i < count; ++i) {
      const OXA_EVENT_T* event = events[i];
      if (event == nullptr) continue;
      if (event->iPipeFd[0] != -1) {
        if (!Add(event->iPipeFd[0], POLLRDNORM, i)) return false;
        continue;
      }
      if ((event->uPollFlags & OXA_EVENT_POLL_READ) && !Add(event->iSocket, POLLRDNORM, i)) {
        return false;
      }
      if ((event->uPollFlags & OXA_EVENT_POLL_WRITE) && !Add(event->iSocket, POLLWRNORM, i)) {
        return false;
      }
    }
    return true;
  }

  // poll's result; an interrupted poll starts again with the whole time-out.
  int Poll(int timeout_ms) {
    int ready;
    do {
      ready = poll(entries_, static_cast<nfds_t>(size_), timeout_ms);
    } while (ready < 0 && errno == EINTR);
    return ready;
  }

  // Entries are judged in list order, so ties go to the lowest event index and, within a
  // socket event, to its read entry.
  unsigned int FirstTriggered(const OXA_EVENT_HANDLE* events) {
    for (int k = 0; k < size_; ++k) {
      if (OXA_GetEventTriggeredFlag_Inter(events[owner_[k]], &entries_[k]) == 0) {
        return static_cast<unsigned int>(owner_[k]);
      }
    }
    return OXA_WAIT_TIMEOUT;
  }

 private:
  bool Add(int fd, short interest, int owner) {
    if (size_ == OXA_MAXIMUM_WAIT_ENTRIES) return false;
    entries_[size_] = pollfd{fd, interest, 0};
    owner_[size_] = owner;
    ++size_;
    return true;
  }

  pollfd entries_[OXA_MAXIMUM_WAIT_ENTRIES];
  int owner_[OXA_MAXIMUM_WAIT_ENTRIES];
  int size_ = 0;
};

}  // namespace

// ---- Internal entry points --------------------------------------------------

// The pipe is non-blocking, so each side needs one system call, not a poll and then the call:
// a write that finds the pipe full fails with EAGAIN where a poll would have found it not
// writable, and a read that returns less than it asked for has emptied the pipe, as a poll
// that then found nothing to read would have told.
OXA_API int OXA_WritePipe_Inter(OXA_EVENT_T* event) {
  // A socket event has no pipe (-1), which poll would have ignored: not writable.
  if (event != nullptr && event->iPipeFd[1] >= 0 && write(event->iPipeFd[1], kSignalByte, 1) == 1) {
    return OXA_TRUE;
  }
  ErrnoSaver keep;
  OXA_OutputDebug("trovik !!!! OXA_WritePipe_Inter return OXA_FALSE errno = %d", keep.value());
  return OXA_FALSE;
}

OXA_API int OXA_ReadPipe_Inter(OXA_EVENT_T* event) {
  if (event == nullptr) return OXA_FALSE;
  if (event->iPipeFd[0] < 0) return OXA_TRUE;  // poll ignores it: nothing to drain
  for (;;) {
    char sink[kDrainChunk];
    const ssize_t n = read(event->iPipeFd[0], sink, sizeof sink);
    if (n == static_cast<ssize_t>(sizeof sink)) continue;  // there may be more
    if (n > 0) return OXA_TRUE;
    // Empty (EAGAIN), or someone else emptied it first. End of file means the write end is
    // gone and a bad descriptor means the event is: both fail, as a poll would have said.
    if (n < 0 && errno == EAGAIN) return OXA_TRUE;
    if (n < 0 && errno == EINTR) continue;
    return OXA_FALSE;
  }
}

OXA_API int OXA_ClearEventMutex_Inter(OXA_EVENT_T* event) {
  if (event == nullptr) return OXA_ERROR;
  return OXA_MutexDestroy(&event->hLock);
}

// ---- C entry points ---------------------------------------------------------

extern "C" {

OXA_API OXA_EVENT_HANDLE OXA_CreateEvent(int initial_state) {
  PendingEvent pending;
  OXA_EVENT_T* event = pending.get();
  if (event == nullptr || !OpenPipe(event)) return CreateEventFailed();
  OXA_MutexCreate(&event->hLock, 0);
  pending.LockCreated();
  if (initial_state != 0 && !OXA_WritePipe_Inter(event)) return CreateEventFailed();
  return pending.Release();
}

OXA_API int OXA_CloseEvent(OXA_EVENT_HANDLE event) {
  if (event == nullptr) {
    OXA_OutputDebug("trovik !!! OXA_CloseEvent !hEvnet return error 0\n");
    return OXA_FALSE;
  }
  DestroyEvent(event, true);
  return OXA_TRUE;
}

OXA_API int OXA_SetEvent(OXA_EVENT_HANDLE event) {
  if (event == nullptr) {
    OXA_OutputDebug("trovik !!! OXA_SetEvent !hEvent return error 0\n");
    return OXA_FALSE;
  }
  EventLockHold hold(&event->hLock);
  // Draining first keeps at most one byte in the pipe however often the event is set.
  if (!OXA_ReadPipe_Inter(event)) {
    ErrnoSaver keep;
    OXA_OutputDebug("trovik !!! OXA_SetEvent read pipe return error %d 1\n", keep.value());
    return OXA_FALSE;
  }
  if (!OXA_WritePipe_Inter(event)) {
    ErrnoSaver keep;
    OXA_OutputDebug("trovik !!! OXA_SetEvent write pipe return error %d 2\n", keep.value());
    return OXA_FALSE;
  }
  return OXA_TRUE;
}

OXA_API int OXA_ResetEvent(OXA_EVENT_HANDLE event) {
  if (event == nullptr) {
    OXA_OutputDebug("trovik !!! OXA_ResetEvent  !hEvent return error 0\n");
    return OXA_FALSE;
  }
  if (event->iPipeFd[0] == -1) {
    OXA_OutputDebug("trovik !!! OXA_ResetEvent (pEvent->iPipeFd[0] == -1) return error 1\n");
    return OXA_FALSE;
  }
  // No lock: the lock keeps two sets from leaving two bytes in the pipe, and a drain cannot
  // add one. A reset racing with a set ends as if one had come first, either way. Taking it
  // here cost a ping-pong on one CPU two extra switches per hand-over: the waiter woken by a
  // set preempted the setter while it still held the lock, then blocked on it.
  return OXA_ReadPipe_Inter(event);
}

OXA_API unsigned int OXA_WaitForSingleObject(OXA_EVENT_HANDLE event, int timeout_ms) {
  if (event == nullptr) {
    OXA_OutputDebug("trovik !!! OXA_WaitForSingleObject !hEvent return error 0\n");
    return OXA_WAIT_INVALID;
  }
  if (event->iPipeFd[0] == -1) {
    OXA_OutputDebug(
        "trovik !!! OXA_WaitForSingleObject (pEvent->iPipeFd[0] == -1) return error 1\n");
    return OXA_WAIT_NO_PIPE;
  }
  pollfd entry{event->iPipeFd[0], POLLRDNORM, 0};
  const int ready = poll(&entry, 1, timeout_ms);  // the byte stays: waits do not consume
  if (ready > 0) return 0;
  if (ready == 0) return OXA_WAIT_TIMEOUT;
  ErrnoSaver keep;
  OXA_OutputDebug("trovik OXA_WaitForSingleObject poll error return error %d 3\n", keep.value());
  return OXA_WAIT_FAILED;
}

OXA_API unsigned int OXA_WaitForMultipleObjects(int count, const OXA_EVENT_HANDLE* events,
                                                unsigned int /*wait_all*/, int timeout_ms) {
  if (events == nullptr) {
    OXA_OutputDebug(
        "trovik !!! OXA_WaitForMultipleObjects ((nEventCount < 0) || !hEvents) return error 0\n");
    return OXA_WAIT_INVALID;
  }
  WaitList list;
  if (!list.Build(count, events)) {
    OXA_OutputDebug(
        "trovik !!! OXA_WaitForMultipleObjects (more than 128 poll entries) return error 0\n");
    return OXA_WAIT_INVALID;
  }
  if (list.Poll(timeout_ms) <= 0) return OXA_WAIT_TIMEOUT;
  return list.FirstTriggered(events);
}

}  // extern "C"
