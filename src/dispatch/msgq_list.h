// The message list of one queue: nodes in delivery order (higher priority first, first-in
// first-out among equals), with the tail of every priority present kept aside so that an
// append never walks the list. Nodes come in three sizes, so that a short message does not
// carry a full-size payload area, and each size keeps spare nodes so that a steady stream of
// messages does not go through the allocator for each one.
#ifndef OXA_SRC_DISPATCH_MSGQ_LIST_H_
#define OXA_SRC_DISPATCH_MSGQ_LIST_H_

#include <stdint.h>

#include <vector>

#include "oxa_msgq.h"

namespace oxa::internal {

// One queued message: the header copied from the sender and the link; the payload follows.
struct MsgNode {
  MsgNode* next;
  uint32_t type;
  int32_t priority;
  int32_t length;
  uint32_t size_class;  // index into the node sizes

  char* data() { return reinterpret_cast<char*>(this + 1); }
};

// Not synchronised: the owning queue's lock guards every call.
class MsgList {
 public:
  static constexpr int kSizeClasses = 3;

  MsgList() = default;
  ~MsgList() { Clear(); }
  MsgList(const MsgList&) = delete;
  MsgList& operator=(const MsgList&) = delete;

  // A node with room for `length` payload bytes (at most OXA_MQ_MAX_MSG_LEN), from the spare
  // nodes or the allocator; null without memory.
  MsgNode* NewNode(int32_t length);
  // Links node behind the last node of a priority greater than or equal to its own (at the
  // head when there is none). False, with the list unchanged and node still the caller's,
  // when the priority index could not grow.
  bool Insert(MsgNode* node);
  // Unlinks and returns the head; null when the list is empty.
  MsgNode* PopHead();
  // Takes back a node that left the list, keeping some for reuse.
  void Recycle(MsgNode* node);
  // Frees every queued and spare node.
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
  MsgNode* spare_[kSizeClasses] = {};  // spare nodes of each size, linked through next
  uint32_t spare_count_[kSizeClasses] = {};
};

}  // namespace oxa::internal

#endif  // OXA_SRC_DISPATCH_MSGQ_LIST_H_
