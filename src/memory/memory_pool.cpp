// OXA_MemoryPool and the OXA_MemoryPool_ functions: an owned CRealMemoryPool.
#include <stdint.h>

#include <new>

#include "oxa_memory.h"

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_MemoryPool) == 8, "vtable pointer and engine pointer");
#endif

OXA_MemoryPool::OXA_MemoryPool(unsigned int block_size, unsigned int initial_count,
                               unsigned int max_count, int boundary_check,
                               long long idle_timeout_ms, int no_lock)
    : pool_(new (std::nothrow) oxa::CRealMemoryPool(
          block_size, initial_count, max_count, boundary_check > 0, idle_timeout_ms, no_lock > 0)) {
  if (pool_ != nullptr) pool_->Start();
}

OXA_MemoryPool::~OXA_MemoryPool() {
  if (pool_ == nullptr) return;
  try {
    pool_->Stop();
  } catch (...) {
    // Out of memory for the leak report: the blocks are freed all the same.
  }
  delete pool_;
}

void* OXA_MemoryPool::Alloc() { return pool_ != nullptr ? pool_->Alloc() : nullptr; }

void OXA_MemoryPool::Free(void* block) {
  if (pool_ != nullptr) pool_->Free(block);
}

unsigned int OXA_MemoryPool::Size() const { return pool_ != nullptr ? pool_->Size() : 0; }

unsigned int OXA_MemoryPool::IdleSize() const { return pool_ != nullptr ? pool_->IdleSize() : 0; }

// ---- C entry points ----------------------------------------------------------

extern "C" {

OXA_API OXA_MemoryPool* OXA_MemoryPool_Create(unsigned int block_size, unsigned int initial_count,
                                              unsigned int max_count, int boundary_check,
                                              long long idle_timeout_ms, int no_lock) {
  return new (std::nothrow) OXA_MemoryPool(block_size, initial_count, max_count, boundary_check,
                                           idle_timeout_ms, no_lock);
}

OXA_API void OXA_MemoryPool_Destroy(OXA_MemoryPool* pool) { delete pool; }

OXA_API void* OXA_MemoryPool_Alloc(OXA_MemoryPool* pool) {
  return pool != nullptr ? pool->Alloc() : nullptr;
}

OXA_API void OXA_MemoryPool_Free(OXA_MemoryPool* pool, void* block) {
  if (pool != nullptr) pool->Free(block);
}

OXA_API unsigned int OXA_MemoryPool_Size(OXA_MemoryPool* pool) {
  return pool != nullptr ? pool->Size() : 0;
}

OXA_API unsigned int OXA_MemoryPool_IdleSize(OXA_MemoryPool* pool) {
  return pool != nullptr ? pool->IdleSize() : 0;
}

}  // extern "C"
