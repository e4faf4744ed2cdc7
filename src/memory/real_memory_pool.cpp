// The fixed-size pool's engine.
//
// Every block the pool owns sits in blocks_, keyed by its user pointer, from creation to
// destruction; whether it is lent is the block's own flag. So lending and returning move a
// block between the intrusive idle list and "lent" without touching the index, and a pointer
// the pool never lent (foreign, interior, already returned) is told apart by one hash lookup.
//
// Lock order: lock_, then the alarm clock's own locks (CheckIdleTimeout adds alarms under
// lock_). The idle check runs on the clock's thread and takes lock_ like any caller.
#include <pthread.h>
#include <stdio.h>

#include <algorithm>
#include <new>

#include "oxa_memory.h"
#include "oxa_thread.h"
#include "oxa_time.h"

#include "memory/maybe_lock.h"
#include "memory/pointer_map.h"
#include "memory/pool_assert.h"
#include "memory/stamp_clock.h"

using oxa::internal::MaybeLock;

namespace {

constexpr const char* kSource = "../real_memory_pool";
constexpr const char* kFreeSignature = "void oxa::CRealMemoryPool::Free(void*)";
constexpr const char* kCheckSignature = "void oxa::CRealMemoryPool::CheckIdleTimeout(oxa_int64)";
constexpr const char* kTaskSignature =
    "void oxa::CRealMemoryPool::OnCheckIdleTimeoutTask(OXA_INT32)";
constexpr int kIdleAlarmId = 1;

// Check states.
constexpr OXA_INT32 kNoCheck = 0;       // at the initial size, or nothing idle to wait for
constexpr OXA_INT32 kCheckDue = 1;      // grown: schedule a check when a block becomes idle
constexpr OXA_INT32 kCheckPending = 2;  // scheduled; also the state of a pool that never shrinks

}  // namespace

namespace oxa {

// A pool block with its idle-list links.
struct CRealMemoryPool::Node : CMemoryBlock {
  explicit Node(unsigned int size) : CMemoryBlock(size) {}
  Node* prev = nullptr;
  Node* next = nullptr;
};

CRealMemoryPool::CRealMemoryPool(unsigned int block_size, unsigned int initial_count,
                                 unsigned int max_count, bool boundary_check,
                                 long long idle_timeout_ms, bool no_lock)
    : block_size_(block_size),
      initial_count_(initial_count),
      max_count_(std::max(initial_count, max_count)),
      boundary_check_(boundary_check),
      idle_timeout_ms_(idle_timeout_ms),
      no_lock_(no_lock && idle_timeout_ms < 0),  // the idle check runs on another thread
      lock_(0),
      idle_front_(nullptr),
      idle_back_(nullptr),
      idle_count_(0),
      used_count_(0),
      check_state_(idle_timeout_ms < 0 ? kCheckPending : kNoCheck) {}

CRealMemoryPool::~CRealMemoryPool() {
  clock_.Stop();  // no idle check may run while the blocks go
  Cleanup();
}

void CRealMemoryPool::Init() {
  MaybeLock hold(lock_, no_lock_);
  for (unsigned int i = 0; i < initial_count_; ++i) {
    Node* node = NewBlock();
    if (node == nullptr) break;  // out of memory (or size 0): the pool starts smaller
    PushIdleFront(node);
  }
}

void CRealMemoryPool::Start() {
  Init();
  if (idle_timeout_ms_ >= 0) clock_.Start();
}

void* CRealMemoryPool::Alloc() {
  MaybeLock hold(lock_, no_lock_);
  Node* node = PopIdleFront();
  if (node == nullptr) {
    if (used_count_ >= max_count_) return nullptr;
    node = NewBlock();
    if (node == nullptr) return nullptr;
    if (check_state_ == kNoCheck) check_state_ = kCheckDue;
  }
  ++used_count_;
  // OXA_Thread_GetSelfId's value, without its call through the library's exported table.
  return node->Lend(static_cast<OXA_HANDLE>(pthread_self()), internal::CoarseTickMs());
}

void CRealMemoryPool::Free(void* block) {
  if (block == nullptr) return;
  MaybeLock hold(lock_, no_lock_);
  auto* node = static_cast<Node*>(blocks_.Find(block));
  if (node == nullptr || !node->Lent()) return;  // foreign, interior or already returned
  // Only the idle check reads an idle block's time, so a pool without one skips the stamp.
  if (idle_timeout_ms_ >= 0) {
    node->Reset();
  } else {
    node->Return();
  }
  OXA_POOL_ASSERT(!boundary_check_ || !node->BoundaryOverflow(), "Check_boundary_overflow", kSource,
                  146, kFreeSignature);
  --used_count_;
  PushIdleFront(node);
  if (check_state_ == kCheckDue) {
    OXA_POOL_ASSERT(idle_count_ == 1, "m_listIdleBlocks.size() == 1", kSource, 146, kFreeSignature);
    CheckIdleTimeout(idle_timeout_ms_);
  }
}

unsigned int CRealMemoryPool::Size() const {
  MaybeLock hold(lock_, no_lock_);
  return block_size_ * (idle_count_ + used_count_);
}

unsigned int CRealMemoryPool::IdleSize() const {
  MaybeLock hold(lock_, no_lock_);
  return block_size_ * idle_count_;
}

void CRealMemoryPool::Stop() {
  clock_.Stop();
  MaybeLock hold(lock_, no_lock_);
  internal::VisitInAddressOrder(blocks_, [this](const internal::PointerMap::Entry& entry) {
    const auto* node = static_cast<const Node*>(entry.value);
    if (!node->Lent()) return;
    printf("memory_pool[%p] check memory leaked, Block: %s\n", static_cast<void*>(this),
           node->ToString().c_str());
  });
  fflush(stdout);  // the report is complete even if the process dies next
}

void CRealMemoryPool::Cleanup() {
  MaybeLock hold(lock_, no_lock_);
  blocks_.ForEach(
      [](const internal::PointerMap::Entry& entry) { delete static_cast<Node*>(entry.value); });
  blocks_.Clear();
  idle_front_ = idle_back_ = nullptr;
  idle_count_ = 0;
  used_count_ = 0;
}

void CRealMemoryPool::CheckIdleTimeout(oxa_int64 delayed_millis) {
  OXA_POOL_ASSERT(delayed_millis >= 0, "delayedMillis >= 0", kSource, 167, kCheckSignature);
  check_state_ = kCheckPending;
  try {
    clock_.AddAlarm(kIdleAlarmId, &CRealMemoryPool::OnAlarm, this, delayed_millis);
  } catch (...) {
    // Out of memory for the alarm: this pool stays grown. Nothing else is affected.
  }
}

void CRealMemoryPool::OnAlarm(void* /*clock*/, int /*id*/, void* pool) {
  if (pool != nullptr) static_cast<CRealMemoryPool*>(pool)->OnCheckIdleTimeoutTask(0);
}

void CRealMemoryPool::OnCheckIdleTimeoutTask(OXA_INT32 /*unused*/) {
  MaybeLock hold(lock_, no_lock_);
  const unsigned int total = idle_count_ + used_count_;
  // At or (after an allocation failure in Init) below the initial size: nothing to give back.
  if (total <= initial_count_) {
    check_state_ = kNoCheck;
    return;
  }
  if (idle_count_ == 0) {
    check_state_ = kCheckDue;
    return;
  }
  const unsigned int can_delete = total - initial_count_;
  OXA_POOL_ASSERT(can_delete > 0, "canDelete > 0", kSource, 196, kTaskSignature);
  unsigned int to_delete = std::min(can_delete, idle_count_);
  const oxa_uint64 now_ms = OXA_GetTimeTick64();
  OXA_POOL_ASSERT(static_cast<oxa_int64>(now_ms) >= idle_timeout_ms_,
                  "static_cast<oxa_int64>(uCurrent) >= m_iIdleTimeoutMillis", kSource, 203,
                  kTaskSignature);
  const oxa_uint64 threshold_ms = now_ms - static_cast<oxa_uint64>(idle_timeout_ms_);
  while (idle_count_ > 0) {
    if (!ShrinkOne(threshold_ms)) return;  // the oldest block is not due yet: rescheduled
    if (--to_delete == 0) {
      check_state_ = idle_count_ > 0 || used_count_ == initial_count_ ? kNoCheck : kCheckDue;
      return;
    }
  }
  check_state_ = used_count_ == initial_count_ ? kNoCheck : kCheckDue;
}

// Destroys the longest idle block if it has been idle since threshold_ms or longer; otherwise
// schedules the next check for when it will be, and returns false.
// REQUIRES: lock_ held, idle list not empty.
bool CRealMemoryPool::ShrinkOne(oxa_uint64 threshold_ms) {
  Node* node = idle_back_;
  OXA_POOL_ASSERT(node != nullptr, "pBlock", kSource, 209, kTaskSignature);
  const oxa_int64 offset_ms = node->TimeOffset(threshold_ms);
  if (offset_ms >= 1) {
    CheckIdleTimeout(offset_ms);
    return false;
  }
  PopIdleBack();
  DestroyBlock(node);
  return true;
}

// A new block, indexed; null when it or its buffer cannot be had (size 0 never has one).
// REQUIRES: lock_ held.
CRealMemoryPool::Node* CRealMemoryPool::NewBlock() {
  Node* node = new (std::nothrow) Node(block_size_);
  if (node == nullptr) return nullptr;
  if (node->UserPtr() == nullptr || !blocks_.Reserve(1)) {
    delete node;
    return nullptr;
  }
  blocks_.Insert(node->UserPtr(), node);
  return node;
}

// REQUIRES: lock_ held, node not in the idle list.
void CRealMemoryPool::DestroyBlock(Node* node) {
  blocks_.Erase(node->UserPtr());
  delete node;
}

// The idle list is doubly linked, but only its two ends are ever removed: lending pops the
// front, shrinking pops the back. So the front's prev link is left stale instead of being
// cleared on every lend, which would touch a second, likely cold, block; nothing reads it.

// REQUIRES: lock_ held.
void CRealMemoryPool::PushIdleFront(Node* node) {
  node->next = idle_front_;
  if (idle_front_ != nullptr) {
    idle_front_->prev = node;
  } else {
    idle_back_ = node;
  }
  idle_front_ = node;
  ++idle_count_;
}

// The most recently returned block, or null. REQUIRES: lock_ held.
CRealMemoryPool::Node* CRealMemoryPool::PopIdleFront() {
  Node* node = idle_front_;
  if (node == nullptr) return nullptr;
  idle_front_ = node->next;
  if (idle_front_ == nullptr) idle_back_ = nullptr;
  --idle_count_;
  return node;
}

// Removes the block idle longest. REQUIRES: lock_ held, idle list not empty.
void CRealMemoryPool::PopIdleBack() {
  Node* node = idle_back_;
  if (node == idle_front_) {  // the last one: its prev link may be stale
    idle_front_ = idle_back_ = nullptr;
  } else {
    idle_back_ = node->prev;
    idle_back_->next = nullptr;
  }
  --idle_count_;
}

}  // namespace oxa
