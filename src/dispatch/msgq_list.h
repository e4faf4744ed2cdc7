// The message list of one queue: nodes in delivery order (higher priority first, first-in
// first-out among equals), with the tail of every priority present kept aside so that an
// append never walks the list, and a small cache of spare nodes so that a steady stream of
// messages does not go through the allocator for each one.
#ifndef OXA_SRC_DISPATCH_MSGQ_LIST_H_
#define OXA_SRC_DISPATCH_MSGQ_LIST_H_

#include <stdint.h>

#include <vector>

#include "oxa_msgq.h"

namespace oxa::internal {

// One queued message: the header copied from the sender, the payload area and the link.
struct MsgNode {
  uint32_t type;
  int32_t priority;
  int32_t length;
  char data[OXA_MQ_MAX_MSG_LEN];
  MsgNode* next;
};

// Not synchronised: the owning queue's lock guards every call.
class MsgList {
 public:
  MsgList() = default;
  ~MsgList() { Clear(); }
  MsgList(const MsgList&) = delete;
  MsgList& operator=(const MsgList&) = delete;

  // A node for a new message, from the cache or the allocator; null without memory.
  MsgNode* NewNode();
  // Links node behind the last node of a priority greater than or equal to its own (at the
  // head when there is none). False, with the list unchanged and node still the caller's,
  // when the priority index could not grow.
  bool Insert(MsgNode* node);
  // Unlinks and returns the head; null when the list is empty.
  MsgNode* PopHead();
  // Takes back a node that left the list, keeping a few for reuse.
  void Recycle(MsgNode* node);
  // Frees every queued and cached node.
  void Clear();

  MsgNode* head() const { return head_; }

 private:
  // The last node of one priority. Kept in ascending priority, so the head's bucket is last.
  struct Bucket {
    int32_t priority;
    MsgNode* tail;
  };

  MsgNode* head_ = nullptr;
  std::vector<Bucket> buckets_;
  MsgNode* spare_ = nullptr;  // cached nodes, linked through next
  uint32_t spare_count_ = 0;
};

}  // namespace oxa::internal

#endif  // OXA_SRC_DISPATCH_MSGQ_LIST_H_
