// The table of message queues: the module's start and stop, creation and destruction.
#include <pthread.h>

#include "oxa_msgq.h"
#include "oxa_sync.h"

#include "dispatch/msgq_table.h"
#include "frame/errno_util.h"

namespace oxa::internal {
namespace {

OXA_MQ_INTER g_queues[OXA_MQ_MAX_QUEUES];
pthread_mutex_t g_table_lock;  // plain; created by the module's start
bool g_table_started = false;  // guarded by the library's initialisation lock

// The table lock, held for a scope; `locked()` is false when it could not be taken.
class TableLock {
 public:
  TableLock() : locked_(g_table_started && OXA_MutexLock(&g_table_lock) == 0) {}
  ~TableLock() {
    if (locked_) OXA_MutexUnlock(&g_table_lock);
  }
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;
  bool locked() const { return locked_; }

 private:
  const bool locked_;
};

// Destroys the first `made` of the record's five objects, in reverse order of creation.
void DestroyFirst(OXA_MQ_INTER* queue, int made) {
  switch (made) {
    case 5:
      OXA_CondDestroy(&queue->space);
      [[fallthrough]];
    case 4:
      OXA_CondDestroy(&queue->arrival);
      [[fallthrough]];
    case 3:
      OXA_MutexDestroy(&queue->space_lock);
      [[fallthrough]];
    case 2:
      OXA_MutexDestroy(&queue->receive_lock);
      [[fallthrough]];
    case 1:
      OXA_MutexDestroy(&queue->queue_lock);
      [[fallthrough]];
    default:
      break;
  }
}

constexpr int kRecordObjects = 5;

void DestroyLocks(OXA_MQ_INTER* queue) {
  DestroyFirst(queue, kRecordObjects);
  queue->locks_alive = false;
}

// Creates the record's locks (plain) and conditions in their documented order; on a failure,
// undoes what this call made, keeping errno. REQUIRES: table lock held.
bool CreateLocks(OXA_MQ_INTER* queue) {
  int made = 0;
  const bool ok = OXA_MutexCreate(&queue->queue_lock, 0) == 0 && ++made &&
                  OXA_MutexCreate(&queue->receive_lock, 0) == 0 && ++made &&
                  OXA_MutexCreate(&queue->space_lock, 0) == 0 && ++made &&
                  OXA_CondCreate(&queue->arrival) == 0 && ++made &&
                  OXA_CondCreate(&queue->space) == 0 && ++made;
  if (!ok) {
    ErrnoSaver keep;
    DestroyFirst(queue, made);
    return false;
  }
  queue->locks_alive = true;
  return true;
}

// Lowest record that is free and that no receiver of a destroyed queue still waits in.
// REQUIRES: table lock held.
OXA_MQ_INTER* LowestFreeRecord() {
  for (OXA_MQ_INTER& queue : g_queues) {
    if (queue.in_use.load() == 0 && queue.receivers.load() == 0) return &queue;
  }
  return nullptr;
}

// Empties a queue in use and marks it free; its locks go too unless receivers remain inside.
// REQUIRES: table lock held.
void Release(OXA_MQ_INTER* queue) {
  OXA_MutexLock(&queue->queue_lock);
  queue->list.Clear();
  queue->count = 0;
  queue->generation.fetch_add(1);
  queue->in_use.store(0);  // seq_cst: pairs with the receivers' count in ReceiverGuard
  OXA_MutexUnlock(&queue->queue_lock);
  if (queue->receivers.load() == 0) DestroyLocks(queue);
}

}  // namespace
}  // namespace oxa::internal

using oxa::internal::g_queues;
using oxa::internal::g_table_lock;
using oxa::internal::g_table_started;
using oxa::internal::TableLock;

OXA_API int OXA_MsgQInitEx_Inter() {
  if (OXA_MutexCreate(&g_table_lock, 0) != 0) return OXA_ERROR;
  for (OXA_MQ_INTER& queue : g_queues) {
    queue.in_use.store(0);
    queue.count = 0;
  }
  g_table_started = true;
  return 0;
}

OXA_API int OXA_MsgQFiniEx_Inter() {
  {
    TableLock hold;
    for (OXA_MQ_INTER& queue : g_queues) {
      if (queue.in_use.load() != 0) oxa::internal::Release(&queue);
    }
  }
  g_table_started = false;
  return OXA_MutexDestroy(&g_table_lock);
}

// ---- C entry points -----------------------------------------------------------------

extern "C" {

OXA_API int OXA_MsgQCreateEx(OXA_MQ_HANDLE* handle) {
  if (handle == nullptr) return OXA_ERROR;
  TableLock hold;
  if (!hold.locked()) return OXA_ERROR;
  OXA_MQ_INTER* queue = oxa::internal::LowestFreeRecord();
  if (queue == nullptr) return OXA_ERROR;
  *handle = queue;  // before the rest, so a failed creation still leaves it set
  if (queue->locks_alive) oxa::internal::DestroyLocks(queue);  // left by waiters now gone
  if (!oxa::internal::CreateLocks(queue)) return OXA_ERROR;
  queue->in_use.store(1);
  return 0;
}

OXA_API int OXA_MsgQDestroyEx(OXA_MQ_HANDLE handle) {
  if (handle == nullptr) return OXA_ERROR;
  TableLock hold;
  if (!hold.locked()) return OXA_ERROR;
  if (handle->in_use.load() != 0) oxa::internal::Release(handle);
  return 0;
}

}  // extern "C"
