#include "dispatch/msgq_list.h"

#include <stdlib.h>

#include <algorithm>
#include <initializer_list>
#include <new>

namespace oxa::internal {
namespace {

// Spare nodes one queue keeps (about 8 KiB each): enough for bursts of a few dozen messages
// in flight without holding much memory once the queue is quiet.
constexpr uint32_t kMaxSpareNodes = 32;
// Distinct priorities the index holds before it allocates; most queues use one or two.
constexpr size_t kReservedPriorities = 8;

}  // namespace

MsgNode* MsgList::NewNode() {
  if (spare_ != nullptr) {
    MsgNode* node = spare_;
    spare_ = node->next;
    --spare_count_;
    return node;
  }
  // Plain malloc: the payload need not be zeroed, only what the sender copies is read back.
  return static_cast<MsgNode*>(malloc(sizeof(MsgNode)));
}

bool MsgList::Insert(MsgNode* node) {
  const auto by_priority = [](const Bucket& b, int32_t p) { return b.priority < p; };
  auto it = std::lower_bound(buckets_.begin(), buckets_.end(), node->priority, by_priority);
  if (it != buckets_.end() && it->priority == node->priority) {
    node->next = it->tail->next;
    it->tail->next = node;
    it->tail = node;
    return true;
  }
  try {
    const auto at = it - buckets_.begin();
    if (buckets_.capacity() == 0) buckets_.reserve(kReservedPriorities);
    it = buckets_.insert(buckets_.begin() + at, Bucket{node->priority, node});
  } catch (const std::bad_alloc&) {
    return false;
  }
  // `it` now sits before the buckets of higher priorities; the nearest of them precedes node.
  const auto higher = it + 1;
  if (higher == buckets_.end()) {
    node->next = head_;
    head_ = node;
  } else {
    node->next = higher->tail->next;
    higher->tail->next = node;
  }
  return true;
}

MsgNode* MsgList::PopHead() {
  MsgNode* node = head_;
  if (node == nullptr) return nullptr;
  head_ = node->next;
  if (buckets_.back().tail == node) buckets_.pop_back();  // last of its priority
  return node;
}

void MsgList::Recycle(MsgNode* node) {
  if (spare_count_ >= kMaxSpareNodes) {
    free(node);
    return;
  }
  node->next = spare_;
  spare_ = node;
  ++spare_count_;
}

void MsgList::Clear() {
  for (MsgNode** list : {&head_, &spare_}) {
    while (*list != nullptr) {
      MsgNode* next = (*list)->next;
      free(*list);
      *list = next;
    }
  }
  buckets_.clear();
  spare_count_ = 0;
}

}  // namespace oxa::internal
