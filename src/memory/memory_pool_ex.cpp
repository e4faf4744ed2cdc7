// OXA_MemoryPoolEx and the OXA_MemoryPoolEx_ functions: an owned CRealMemoryPoolEx.
#include <stdint.h>

#include <new>

#include "oxa_memory.h"

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_MemoryPoolEx) == 8, "vtable pointer and engine pointer");
#endif

OXA_MemoryPoolEx::OXA_MemoryPoolEx(unsigned int initial_count, unsigned int max_count,
                                   long long idle_timeout_ms, int no_lock, unsigned int chunk_size)
    : pool_(new (std::nothrow) oxa::CRealMemoryPoolEx(initial_count, max_count, idle_timeout_ms,
                                                      no_lock > 0, chunk_size)) {
  if (pool_ != nullptr) pool_->Start();
}

OXA_MemoryPoolEx::~OXA_MemoryPoolEx() {
  if (pool_ == nullptr) return;
  try {
    pool_->Stop();
  } catch (...) {
    // Out of memory for the leak report: everything is freed all the same.
  }
  delete pool_;
}

void* OXA_MemoryPoolEx::Alloc(unsigned int size) {
  return pool_ != nullptr ? pool_->Alloc(size) : nullptr;
}

void OXA_MemoryPoolEx::Free(void* request) {
  if (pool_ != nullptr) pool_->Free(request);
}

unsigned int OXA_MemoryPoolEx::Size() const { return pool_ != nullptr ? pool_->Size() : 0; }

unsigned int OXA_MemoryPoolEx::IdleSize() const { return pool_ != nullptr ? pool_->IdleSize() : 0; }

bool OXA_MemoryPoolEx::FitsIdle(unsigned int size) const {
  return pool_ != nullptr && pool_->FitsIdle(size);
}

// ---- C entry points ----------------------------------------------------------

extern "C" {

OXA_API OXA_MemoryPoolEx* OXA_MemoryPoolEx_Create(unsigned int initial_count,
                                                  unsigned int max_count, long long idle_timeout_ms,
                                                  int no_lock, unsigned int chunk_size) {
  return new (std::nothrow)
      OXA_MemoryPoolEx(initial_count, max_count, idle_timeout_ms, no_lock, chunk_size);
}

OXA_API void OXA_MemoryPoolEx_Destroy(OXA_MemoryPoolEx* pool) { delete pool; }

OXA_API void* OXA_MemoryPoolEx_Alloc(OXA_MemoryPoolEx* pool, unsigned int size) {
  return pool != nullptr ? pool->Alloc(size) : nullptr;
}

OXA_API void OXA_MemoryPoolEx_Free(OXA_MemoryPoolEx* pool, void* request) {
  if (pool != nullptr) pool->Free(request);
}

OXA_API unsigned int OXA_MemoryPoolEx_Size(OXA_MemoryPoolEx* pool) {
  return pool != nullptr ? pool->Size() : 0;
}

OXA_API unsigned int OXA_MemoryPoolEx_IdleSize(OXA_MemoryPoolEx* pool) {
  return pool != nullptr ? pool->IdleSize() : 0;
}

}  // extern "C"
