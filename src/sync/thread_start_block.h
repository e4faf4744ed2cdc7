// The block that carries a new thread's routine and its creator's trace record to the start
// trampoline (pfnThreadStartAddress). The creator allocates it, the new thread frees it; when
// creation fails the creator frees it again.
#ifndef OXA_SRC_SYNC_THREAD_START_BLOCK_H_
#define OXA_SRC_SYNC_THREAD_START_BLOCK_H_

#include <stdint.h>
#include <stdlib.h>

#include "oxa_thread.h"
#include "oxa_trace.h"

namespace oxa::internal {

struct ThreadStartBlock {
  OXA_TRACEINFO trace;         // a copy of the creator's record
  OXA_THREAD_ROUTINE routine;  // the caller's routine and argument
  void* arg;
  uint32_t has_trace;  // 1: install `trace` around the routine; always 1 when built here
};

// A zero-filled block from the C heap, where the trampoline returns it; null when the heap is
// exhausted (errno ENOMEM). Inline so that tests can build blocks for the trampoline too.
inline ThreadStartBlock* NewThreadStartBlock() {
  return static_cast<ThreadStartBlock*>(calloc(1, sizeof(ThreadStartBlock)));
}

inline void FreeThreadStartBlock(ThreadStartBlock* block) { free(block); }

}  // namespace oxa::internal

#endif  // OXA_SRC_SYNC_THREAD_START_BLOCK_H_
