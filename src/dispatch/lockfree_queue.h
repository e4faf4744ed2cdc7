// The engine of oxa::oxa_lockfreeQ: a linked first-in first-out queue with a dummy head node.
// Producers link at the tail with compare-and-swap only; consumers swing the head with
// compare-and-swap and then hand the old dummy back under the pop mutex.
//
// Reclamation: a thread may still read a node (its next link, its element) after another
// thread has unlinked it, so nodes are never returned to the system while the queue lives.
// An unlinked node goes onto a stack of spare nodes that a later push reuses (in batches, see
// Recycle). Every link
// that can be swapped (head, tail, each node's next, the spare stack's top) carries a
// modification count (tagged_ptr.h), so a thread holding a stale view of a recycled node fails
// its swap and retries. Every shared field of a node is atomic, so such a stale read is a
// plain, harmless race. The memory held is the queue's high-water mark of nodes, given back by
// the destructor.
#ifndef OXA_SRC_DISPATCH_LOCKFREE_QUEUE_H_
#define OXA_SRC_DISPATCH_LOCKFREE_QUEUE_H_

#include <stdint.h>

#include <atomic>

#include "oxa_lockfree.h"
#include "oxa_sync.h"

#include "dispatch/tagged_ptr.h"

namespace oxa {

class oxa_lockfreeQImpl {
 public:
  oxa_lockfreeQImpl();
  // Drops the reference of every queued element and frees every node.
  // REQUIRES: no other thread uses the queue.
  virtual ~oxa_lockfreeQImpl();
  oxa_lockfreeQImpl(const oxa_lockfreeQImpl&) = delete;
  oxa_lockfreeQImpl& operator=(const oxa_lockfreeQImpl&) = delete;

  // False when no node could be had (the dummy at construction, or no memory now).
  bool valid() const { return valid_; }
  // Appends element, taking over one reference the caller owns. False without memory (the
  // reference stays the caller's).
  bool push_back(cobject* element);
  // Unlinks the oldest element and hands its reference to the caller; null when empty.
  cobject* pop_front();
  bool empty() const;
  int size() const;

 private:
  // 64-byte aligned: the alignment frees the low bits for the modification count, and no two
  // nodes share a cache line.
  struct alignas(64) Node {
    std::atomic<cobject*> element{nullptr};  // owned while queued; stale in the dummy
    std::atomic<uint64_t> next{0};           // tagged successor in the queue
    std::atomic<Node*> spare_next{nullptr};  // successor on the spare stack
  };
  using Link = internal::Tagged<Node>;
  static constexpr uint32_t kRecycleBatch = 32;

  Node* NewNode();
  void Recycle(Node* node);

  // Consumers work on the first cache line (head and their count), producers on the second
  // (tail and their count): the count of elements is pushed_ - popped_, so that neither side
  // writes to the other's line.
  alignas(64) std::atomic<uint64_t> head_;
  std::atomic<int32_t> popped_{0};
  alignas(64) std::atomic<uint64_t> tail_;
  std::atomic<int32_t> pushed_{0};
  alignas(64) OXA_Mutex pop_mutex_{0};  // plain; consumers' hand-over of the old dummy
  Node* retired_ = nullptr;             // old dummies not yet on the spare stack, linked through
  Node* retired_last_ = nullptr;        // spare_next. Guarded by pop_mutex_.
  uint32_t retired_count_ = 0;
  alignas(64) std::atomic<uint64_t> spare_{0};
  bool valid_ = false;
};

}  // namespace oxa

#endif  // OXA_SRC_DISPATCH_LOCKFREE_QUEUE_H_
