// The variable-size pool's engine: requests carved byte-exact from chunks of a fixed-size pool.
//
// m_mapUsedRecords maps every live request to the record of its chunk. It is a hash map: Free
// needs an exact lookup only, and the ordered walks (leak report, clean-up) sort a snapshot.
//
// Lock order: lock_ (skipped in no-lock mode), then pool_'s own lock.
#include <stdint.h>
#include <stdio.h>

#include <new>

#include "oxa_memory.h"

#include "memory/maybe_lock.h"
#include "memory/pointer_map.h"
#include "memory/pool_assert.h"

using oxa::internal::MaybeLock;
using oxa::internal::PointerMap;

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(oxa::CUsedRecord) == 16, "used record layout is ABI");
#endif

namespace {

constexpr const char* kSource = "../real_memory_pool_ex";

}  // namespace

namespace oxa {

std::string CUsedRecord::ToString() const {
  // Deliberately unbalanced (a leading comma, no opening brace); "0x%p" doubles the prefix.
  char text[160];
  snprintf(
      text, sizeof text,
      ", \"AllocPtr\": \"0x%p\", \"IdlePtr\": \"0x%p\", \"RemainBytes\": %u, \"UsedNum\": %d }",
      AllocPtr, static_cast<void*>(IdlePtr), RemainBytes, m_iUsedNum);
  return text;
}

CRealMemoryPoolEx::CRealMemoryPoolEx(unsigned int initial_count, unsigned int max_count,
                                     long long idle_timeout_ms, bool no_lock,
                                     unsigned int chunk_size)
    : pool_(chunk_size, initial_count == 0 ? 1 : initial_count, max_count, false, idle_timeout_ms,
            no_lock),
      no_lock_(no_lock),  // kept as asked: pool_ drops its own no-lock when it has a time-out
      chunk_size_(chunk_size),
      lock_(0),
      last_(nullptr),
      current_(nullptr) {}

CRealMemoryPoolEx::~CRealMemoryPoolEx() { Cleanup(); }

void CRealMemoryPoolEx::Start() { pool_.Start(); }

void* CRealMemoryPoolEx::Alloc(unsigned int size) {
  if (size > chunk_size_) return nullptr;
  MaybeLock hold(lock_, no_lock_);
  if (!m_mapUsedRecords.Reserve(1)) return nullptr;  // before anything changes
  if ((current_ == nullptr || size > current_->RemainBytes) && !StartChunk()) return nullptr;
  char* request = current_->IdlePtr;
  current_->RemainBytes -= size;
  current_->IdlePtr += size;
  ++current_->m_iUsedNum;
  // A 0-byte request leaves IdlePtr where it is, so the next one lands here again.
  OXA_POOL_ASSERT(m_mapUsedRecords.Find(request) == nullptr,
                  "m_mapUsedRecords.find(pRet) == m_mapUsedRecords.end()", kSource, 142,
                  "void* oxa::CRealMemoryPoolEx::Alloc(unsigned int)");
  m_mapUsedRecords.Insert(request, current_);
  last_ = request;
  return request;
}

void CRealMemoryPoolEx::Free(void* request) {
  if (request == nullptr) return;
  MaybeLock hold(lock_, no_lock_);
  auto* record = static_cast<CUsedRecord*>(m_mapUsedRecords.Erase(request));
  if (record == nullptr) return;  // foreign, interior or already freed
  OXA_POOL_ASSERT(record->m_iUsedNum > 0, "pUsedRecord->m_iUsedNum > 0", kSource, 181,
                  "void oxa::CRealMemoryPoolEx::Free(void*)");
  --record->m_iUsedNum;
  if (record != current_) {
    if (record->m_iUsedNum == 0) Release(record);
  } else if (record->m_iUsedNum == 0) {
    record->IdlePtr = static_cast<char*>(record->AllocPtr);  // rewind
    record->RemainBytes = chunk_size_;
  } else if (request == last_) {
    // The latest request gives its bytes back. last_ stays, so this happens once per request.
    record->RemainBytes += static_cast<unsigned int>(record->IdlePtr - last_);
    record->IdlePtr = last_;
  }
}

unsigned int CRealMemoryPoolEx::Size() const {
  MaybeLock hold(lock_, no_lock_);
  return pool_.Size();
}

unsigned int CRealMemoryPoolEx::IdleSize() const {
  MaybeLock hold(lock_, no_lock_);
  return pool_.IdleSize() + (current_ != nullptr ? current_->RemainBytes : 0);
}

bool CRealMemoryPoolEx::FitsIdle(unsigned int size) const {
  MaybeLock hold(lock_, no_lock_);
  const unsigned int remain = current_ != nullptr ? current_->RemainBytes : 0;
  return size <= remain || size <= pool_.IdleSize() + remain;
}

void CRealMemoryPoolEx::Stop() {
  {
    MaybeLock hold(lock_, no_lock_);
    // An unused current chunk goes back now so the chunk pool's report does not list it; the
    // record stays current, so the pool must not lend again after Stop.
    if (current_ != nullptr && current_->m_iUsedNum == 0) pool_.Free(current_->AllocPtr);
    internal::VisitInAddressOrder(m_mapUsedRecords, [this](const PointerMap::Entry& entry) {
      printf("memory_pool_ex[%p] check memory leaked, Used record: %s\n", static_cast<void*>(this),
             static_cast<const CUsedRecord*>(entry.value)->ToString().c_str());
    });
    fflush(stdout);
  }
  pool_.Stop();
}

void CRealMemoryPoolEx::Cleanup() {
  MaybeLock hold(lock_, no_lock_);
  internal::VisitInAddressOrder(m_mapUsedRecords, [this](const PointerMap::Entry& entry) {
    auto* record = static_cast<CUsedRecord*>(entry.value);
    OXA_POOL_ASSERT(record->m_iUsedNum > 0, "pUsedRecord->m_iUsedNum > 0", kSource, 70,
                    "void oxa::CRealMemoryPoolEx::Cleanup()");
    --record->m_iUsedNum;
    if (record != current_ && record->m_iUsedNum == 0) Release(record);
  });
  m_mapUsedRecords.Clear();
  if (current_ != nullptr) Release(current_);
  current_ = nullptr;
  last_ = nullptr;
}

// Makes a fresh chunk current; false (and no current chunk) when none can be had.
// REQUIRES: lock_ held.
bool CRealMemoryPoolEx::StartChunk() {
  current_ = nullptr;  // the former current chunk lives on through its live requests
  void* chunk = pool_.Alloc();
  if (chunk == nullptr) return false;
  current_ = new (std::nothrow) CUsedRecord{chunk, static_cast<char*>(chunk), chunk_size_, 0};
  if (current_ == nullptr) {
    pool_.Free(chunk);  // nobody would ever return it otherwise
    return false;
  }
  return true;
}

// Returns a record's chunk to pool_ and deletes the record. REQUIRES: lock_ held.
void CRealMemoryPoolEx::Release(CUsedRecord* record) {
  pool_.Free(record->AllocPtr);
  delete record;
}

}  // namespace oxa
