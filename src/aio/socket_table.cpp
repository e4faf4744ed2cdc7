#include "aio/socket_table.h"

#include <atomic>

namespace oxa::internal {
namespace {

// Null entries mean unbound. Atomic so that a worker that looks up a descriptor under its own
// slot lock never races, as far as the language is concerned, with a binding on another
// queue; the mutexes named in the header give the ordering that matters.
std::atomic<CSocketOperation*> gSocketOpr[kMaxSockets];

}  // namespace

CSocketOperation* LookupSocket(int fd) { return gSocketOpr[fd].load(std::memory_order_acquire); }

void StoreSocket(int fd, CSocketOperation* op) {
  gSocketOpr[fd].store(op, std::memory_order_release);
}

}  // namespace oxa::internal
