// The global pool: five variable-size pools, one per size class, under one total byte limit.
//
// Lock order: the global lock, then a class pool's inner chunk pool lock. The class pools run
// in no-lock mode since the global lock already serialises every use of them.
#include <algorithm>
#include <atomic>
#include <new>

#include "oxa_memory.h"

#include "frame/load_order.h"
#include "memory/maybe_lock.h"

namespace {

constexpr unsigned int kMaxTotalBytes = 0x80000000u;
constexpr long long kClassIdleTimeoutMs = 60000;

struct SizeClass {
  unsigned int max_request;  // inclusive
  unsigned int chunk_size;
};

// Classes 1 to 4 take up to about a quarter of their chunk; class 5 a whole chunk.
constexpr SizeClass kClasses[] = {
    {500, 2048}, {5120, 20480}, {51200, 204800}, {512000, 2097152}, {10485760, 10485760},
};
constexpr int kClassCount = sizeof kClasses / sizeof kClasses[0];

// The limit is written before the lock is taken and read under it.
std::atomic<unsigned int> g_limit_bytes{kMaxTotalBytes};

struct GlobalPool {
  OXA_Mutex lock{0};
  OXA_MemoryPoolEx* pools[kClassCount] = {};  // Guarded by lock.
  bool initialised = false;                   // all five exist. Guarded by lock.
  oxa::internal::PointerMap pointers;         // live pointer -> class pool. Guarded by lock.
};
GlobalPool g_global OXA_LOAD_AT(OXA_LOAD_GLOBAL_POOL);

// The global lock, taken on the system mutex directly: every allocation and free takes it.
class GlobalLock : public oxa::internal::MaybeLock {
 public:
  GlobalLock() : MaybeLock(g_global.lock, false) {}
};

// -1 when no class takes the request.
int ClassOf(unsigned int size) {
  for (int i = 0; i < kClassCount; ++i) {
    if (size <= kClasses[i].max_request) return i;
  }
  return -1;
}

// REQUIRES: g_global.lock held, or the caller accepts a racy sum.
unsigned long long TotalBytes() {
  unsigned long long total = 0;
  for (OXA_MemoryPoolEx* pool : g_global.pools) {
    if (pool != nullptr) total += pool->Size();
  }
  return total;
}

// Whether a request of `size` in `pool` may go ahead: always when the class's idle memory
// holds it, otherwise only when one more chunk stays within the limit.
// REQUIRES: g_global.lock held.
bool WithinLimit(OXA_MemoryPoolEx* pool, unsigned int size, unsigned int chunk_size) {
  if (pool->FitsIdle(size)) return true;
  return TotalBytes() + chunk_size <= g_limit_bytes.load(std::memory_order_relaxed);
}

}  // namespace

namespace oxa {

bool OXA_InitMemoryPool(unsigned int total_bytes) {
  const unsigned int limit = std::min(total_bytes, kMaxTotalBytes);
  g_limit_bytes.store(limit, std::memory_order_relaxed);
  GlobalLock hold;
  bool all = true;
  for (int i = 0; i < kClassCount; ++i) {
    OXA_MemoryPoolEx*& pool = g_global.pools[i];
    if (pool == nullptr) {
      const unsigned int chunk = kClasses[i].chunk_size;
      pool = new (std::nothrow) OXA_MemoryPoolEx(1, limit / chunk, kClassIdleTimeoutMs, 1, chunk);
    }
    all = all && pool != nullptr;
  }
  g_global.initialised = all;
  return all;
}

void OXA_FiniMemoryPool() {
  GlobalLock hold;
  for (OXA_MemoryPoolEx*& pool : g_global.pools) {
    delete pool;  // prints the class's leak report
    pool = nullptr;
  }
  g_global.initialised = false;
  // Entries left would name destroyed pools; dropping them turns a late free into a no-op.
  g_global.pointers.Clear();
}

OXA_MemoryPoolEx* OXA_GetMemoryPoolEx(unsigned int& reference_size) {
  const int index = ClassOf(reference_size);
  if (index < 0) return nullptr;
  reference_size = kClasses[index].chunk_size;
  return g_global.pools[index];
}

unsigned int OXA_GetMemoryPoolExTotalSize() {
  return g_global.initialised ? static_cast<unsigned int>(TotalBytes()) : 0;
}

unsigned int OXA_GetMemoryPoolExTotalIdleSize() {
  if (!g_global.initialised) return 0;
  unsigned int idle = 0;
  for (OXA_MemoryPoolEx* pool : g_global.pools)
    idle += pool->IdleSize();
  return idle;
}

}  // namespace oxa

OXA_API int OXA_InitMemoryPool_Inter(unsigned int total_bytes) {
  return oxa::OXA_InitMemoryPool(total_bytes) ? 0 : OXA_ERROR;
}

OXA_API int OXA_FiniMemoryPool_Inter() {
  oxa::OXA_FiniMemoryPool();
  return 0;
}

// ---- C entry points ----------------------------------------------------------

extern "C" {

OXA_API int OXA_MemoryPoolGlobal_Init(unsigned int total_bytes) {
  return OXA_InitMemoryPool_Inter(total_bytes) == 0 ? OXA_TRUE : OXA_FALSE;
}

OXA_API void* OXA_MemoryPoolGlobal_Alloc(unsigned int size) {
  const int index = ClassOf(size);
  if (index < 0) return nullptr;
  GlobalLock hold;
  // The class pool is read under the lock, so a concurrent teardown cannot pull it away.
  OXA_MemoryPoolEx* pool = g_global.pools[index];
  if (pool == nullptr || !WithinLimit(pool, size, kClasses[index].chunk_size)) return nullptr;
  if (!g_global.pointers.Reserve(1)) return nullptr;
  void* pointer = pool->Alloc(size);
  if (pointer != nullptr) g_global.pointers.Insert(pointer, pool);
  return pointer;
}

OXA_API void OXA_MemoryPoolGlobal_Free(void* pointer) {
  if (pointer == nullptr) return;
  GlobalLock hold;
  auto* pool = static_cast<OXA_MemoryPoolEx*>(g_global.pointers.Erase(pointer));
  if (pool != nullptr) pool->Free(pointer);
}

OXA_API unsigned int OXA_MemoryPoolGlobal_Size(void) {
  GlobalLock hold;
  return oxa::OXA_GetMemoryPoolExTotalSize();
}

OXA_API unsigned int OXA_MemoryPoolGlobal_IdleSize(void) {
  GlobalLock hold;
  return oxa::OXA_GetMemoryPoolExTotalIdleSize();
}

}  // extern "C"
