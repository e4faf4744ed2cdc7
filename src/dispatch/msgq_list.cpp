#include "dispatch/msgq_list.h"

#include <stdlib.h>

#include <algorithm>
#include <new>

namespace oxa::internal {
namespace {

// Payload room of each node size (a small node is 128 bytes in all), and how many spare nodes
// of each size a queue keeps: a few hundred kilobytes at most once the queue is quiet.
constexpr int32_t kCapacity[MsgList::kSizeClasses] = {static_cast<int32_t>(128 - sizeof(MsgNode)),
                                                      1024, OXA_MQ_MAX_MSG_LEN};
constexpr uint32_t kMaxSpare[MsgList::kSizeClasses] = {1024, 64, 16};
// Distinct priorities the index holds before it allocates; most queues use one or two.
constexpr size_t kReservedPriorities = 8;

uint32_t SizeClassOf(int32_t length) {
  uint32_t size_class = 0;
  while (kCapacity[size_class] < length)
    ++size_class;
  return size_class;
}

}  // namespace

MsgNode* MsgList::NewNode(int32_t length) {
  const uint32_t size_class = SizeClassOf(length);
  MsgNode* node = spare_[size_class];
  if (node != nullptr) {
    spare_[size_class] = node->next;
    --spare_count_[size_class];
    return node;
  }
  // Plain malloc: the payload need not be zeroed, only what the sender copies is read back.
  node =
      static_cast<MsgNode*>(malloc(sizeof(MsgNode) + static_cast<size_t>(kCapacity[size_class])));
  if (node != nullptr) node->size_class = size_class;
  return node;
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
  const uint32_t size_class = node->size_class;
  if (spare_count_[size_class] >= kMaxSpare[size_class]) {
    free(node);
    return;
  }
  node->next = spare_[size_class];
  spare_[size_class] = node;
  ++spare_count_[size_class];
}

void MsgList::Clear() {
  auto free_all = [](MsgNode** list) {
    while (*list != nullptr) {
      MsgNode* next = (*list)->next;
      free(*list);
      *list = next;
    }
  };
  free_all(&head_);
  for (int i = 0; i < kSizeClasses; ++i) {
    free_all(&spare_[i]);
    spare_count_[i] = 0;
  }
  buckets_.clear();
}

}  // namespace oxa::internal
