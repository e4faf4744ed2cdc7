#include "dispatch/lockfree_queue.h"

#include <initializer_list>
#include <new>

#include "frame/scoped_lock.h"

namespace oxa {

// Every swap is sequentially consistent: a full barrier on both sides, as the queue's users
// may rely on for the data they publish through an element.
constexpr auto kSwapOrder = std::memory_order_seq_cst;

oxa_lockfreeQImpl::oxa_lockfreeQImpl() {
  Node* dummy = NewNode();
  valid_ = dummy != nullptr;
  head_.store(Link::Pack(dummy, 0));
  tail_.store(Link::Pack(dummy, 0));
}

oxa_lockfreeQImpl::~oxa_lockfreeQImpl() {
  Node* node = Link::Pointer(head_.load());
  bool dummy = true;  // the first node's element was handed out already
  while (node != nullptr) {
    Node* next = Link::Pointer(node->next.load());
    cobject* element = node->element.load();
    if (!dummy && element != nullptr) element->release();
    dummy = false;
    delete node;
    node = next;
  }
  for (Node* list : {Link::Pointer(spare_.load()), retired_}) {
    while (list != nullptr) {
      Node* next = list->spare_next.load();
      delete list;
      list = next;
    }
  }
}

oxa_lockfreeQImpl::Node* oxa_lockfreeQImpl::NewNode() {
  uint64_t top = spare_.load(std::memory_order_acquire);
  while (Link::Pointer(top) != nullptr) {
    Node* node = Link::Pointer(top);
    // `node` may be taken by another thread meanwhile; its spare_next is then stale and the
    // swap below fails on the count.
    Node* below = node->spare_next.load(std::memory_order_relaxed);
    if (spare_.compare_exchange_weak(top, Link::Next(top, below), kSwapOrder)) return node;
  }
  Node* node = new (std::nothrow) Node;
  if (node != nullptr && !Link::Fits(node)) {  // an address the tag cannot hold
    delete node;
    return nullptr;
  }
  return node;
}

void oxa_lockfreeQImpl::Recycle(Node* node) {
  // Consumers gather old dummies under the pop mutex, which they hold anyway, and give them to
  // the spare stack as one chain, so that the stack's top is swapped once per batch instead of
  // once per pop. REQUIRES: pop_mutex_ held.
  node->spare_next.store(retired_, std::memory_order_relaxed);
  if (retired_ == nullptr) retired_last_ = node;
  retired_ = node;
  if (++retired_count_ < kRecycleBatch) return;
  uint64_t top = spare_.load(std::memory_order_relaxed);
  do {
    retired_last_->spare_next.store(Link::Pointer(top), std::memory_order_relaxed);
  } while (!spare_.compare_exchange_weak(top, Link::Next(top, retired_), kSwapOrder));
  retired_ = nullptr;
  retired_last_ = nullptr;
  retired_count_ = 0;
}

bool oxa_lockfreeQImpl::push_back(cobject* element) {
  Node* node = NewNode();
  if (node == nullptr) return false;
  node->element.store(element, std::memory_order_relaxed);
  // Advance the link's count as it becomes null again: a producer that still holds a view of
  // this node from its previous life cannot link behind it.
  const uint64_t old_next = node->next.load(std::memory_order_relaxed);
  node->next.store(Link::Next(old_next, nullptr), std::memory_order_relaxed);
  for (;;) {
    uint64_t tail = tail_.load(std::memory_order_acquire);
    Node* last = Link::Pointer(tail);
    uint64_t next = last->next.load(std::memory_order_acquire);
    if (tail != tail_.load(std::memory_order_acquire)) continue;  // `last` went stale
    if (Link::Pointer(next) != nullptr) {  // a push linked but has not moved the tail: help
      tail_.compare_exchange_strong(tail, Link::Next(tail, Link::Pointer(next)), kSwapOrder);
      continue;
    }
    if (last->next.compare_exchange_weak(next, Link::Next(next, node), kSwapOrder)) {
      tail_.compare_exchange_strong(tail, Link::Next(tail, node), kSwapOrder);
      break;
    }
  }
  pushed_.fetch_add(1, kSwapOrder);
  return true;
}

cobject* oxa_lockfreeQImpl::pop_front() {
  for (;;) {
    uint64_t head = head_.load(std::memory_order_acquire);
    const uint64_t tail = tail_.load(std::memory_order_acquire);
    Node* first = Link::Pointer(head);
    const uint64_t next = first->next.load(std::memory_order_acquire);
    if (head != head_.load(std::memory_order_acquire)) continue;  // `next` may be stale
    Node* second = Link::Pointer(next);
    if (first == Link::Pointer(tail)) {
      if (second == nullptr) return nullptr;
      uint64_t lagging = tail;  // a push linked but has not moved the tail: help
      tail_.compare_exchange_strong(lagging, Link::Next(tail, second), kSwapOrder);
      continue;
    }
    if (second == nullptr) continue;
    // Read before the swap: once head has moved on, `second` is the dummy and the next pop
    // may recycle it. A value read from a recycled node is discarded by the failing swap.
    cobject* element = second->element.load(std::memory_order_acquire);
    if (head_.compare_exchange_weak(head, Link::Next(head, second), kSwapOrder)) {
      popped_.fetch_add(1, kSwapOrder);
      internal::ScopedLock<OXA_Mutex> hand_over(pop_mutex_);
      Recycle(first);
      return element;
    }
  }
}

bool oxa_lockfreeQImpl::empty() const {
  return Link::Pointer(head_.load(std::memory_order_relaxed)) ==
         Link::Pointer(tail_.load(std::memory_order_relaxed));
}

int oxa_lockfreeQImpl::size() const {
  // A pop may count before the push it took from has: never report less than empty.
  const int32_t popped = popped_.load(kSwapOrder);
  const int32_t count = pushed_.load(kSwapOrder) - popped;
  return count < 0 ? 0 : count;
}

}  // namespace oxa
