/** \file
 * liboxa: memory. Guarded blocks, the fixed-size pool (equal blocks, idle shrinking, leak
 * report), the variable-size pool (requests carved from pooled chunks), the process-wide pool
 * by size class, and aligned allocation.
 *
 * Pools report exhaustion by a null result, never by an exception. Internal invariants are
 * checked by assertions that abort the process with the failing condition, the source name,
 * the line and the function.
 */
#ifndef OXA_MEMORY_H_
#define OXA_MEMORY_H_

#include <stddef.h>

#include "oxa_base.h"

#ifdef __cplusplus
class OXA_MemoryPool;
class OXA_MemoryPoolEx;
extern "C" {
#else
typedef struct OXA_MemoryPool OXA_MemoryPool;
typedef struct OXA_MemoryPoolEx OXA_MemoryPoolEx;
#endif

/* ---- Fixed-size pool: every function does nothing (null / 0) for a null pool. ---- */

/**
 * Creates a pool of blocks of block_size bytes: initial_count blocks at once, growing one block
 * per OXA_MemoryPool_Alloc up to max_count (raised to initial_count when smaller). A
 * boundary_check above 0 checks the guard bytes around a block on every return and aborts the
 * process when they were overwritten. An idle_timeout_ms of 0 or more destroys blocks idle that
 * long, down to initial_count, on a thread of the pool's own; negative never shrinks. A no_lock
 * above 0 with a negative time-out takes no lock: the caller keeps the pool to one thread.
 * Returns null when memory runs out.
 */
OXA_API OXA_MemoryPool* OXA_MemoryPool_Create(unsigned int block_size, unsigned int initial_count,
                                              unsigned int max_count, int boundary_check,
                                              long long idle_timeout_ms, int no_lock);
/** Prints the leak report (one line per block still lent) on standard output, then frees all. */
OXA_API void OXA_MemoryPool_Destroy(OXA_MemoryPool* pool);
/** Lends a block, the most recently returned first; null when max_count blocks are lent. */
OXA_API void* OXA_MemoryPool_Alloc(OXA_MemoryPool* pool);
/** Takes a block back; null, foreign, interior and already returned pointers are ignored. */
OXA_API void OXA_MemoryPool_Free(OXA_MemoryPool* pool, void* block);
/** Bytes in all blocks, lent and idle (block size times block count). */
OXA_API unsigned int OXA_MemoryPool_Size(OXA_MemoryPool* pool);
/** Bytes in idle blocks. */
OXA_API unsigned int OXA_MemoryPool_IdleSize(OXA_MemoryPool* pool);

/* ---- Variable-size pool: every function does nothing (null / 0) for a null pool. ---- */

/**
 * Creates a pool that carves requests of up to chunk_size bytes, packed byte-exact with no
 * alignment, from chunks of a fixed-size pool (initial_count chunks, 0 counting as 1, growing up
 * to max_count; idle_timeout_ms as for OXA_MemoryPool_Create). A chunk goes back when its last
 * request is freed; the current chunk is rewound instead. Returns null when memory runs out.
 */
OXA_API OXA_MemoryPoolEx* OXA_MemoryPoolEx_Create(unsigned int initial_count,
                                                  unsigned int max_count, long long idle_timeout_ms,
                                                  int no_lock, unsigned int chunk_size);
/** Prints the leak report on standard output, then frees everything. */
OXA_API void OXA_MemoryPoolEx_Destroy(OXA_MemoryPoolEx* pool);
/**
 * Returns size bytes from the current chunk, or from a new one; null above chunk_size or when no
 * chunk can be had. Do not ask for 0 bytes: the next request would get the same address, which
 * fails an assertion.
 */
OXA_API void* OXA_MemoryPoolEx_Alloc(OXA_MemoryPoolEx* pool, unsigned int size);
/**
 * Frees a request; unknown pointers are ignored. Freeing the latest request gives its bytes back
 * to the current chunk, so the same request gets the same address again.
 */
OXA_API void OXA_MemoryPoolEx_Free(OXA_MemoryPoolEx* pool, void* request);
/** Bytes in all chunks. */
OXA_API unsigned int OXA_MemoryPoolEx_Size(OXA_MemoryPoolEx* pool);
/** Bytes in idle chunks plus what is left in the current chunk. */
OXA_API unsigned int OXA_MemoryPoolEx_IdleSize(OXA_MemoryPoolEx* pool);

/* ---- The global pool: five size classes under one total limit. Thread-safe. ---- */

/**
 * Sets the global pool up with a total limit in bytes (cut to 0x80000000). Size classes, in
 * request bytes: 0-500, 501-5120, 5121-51200, 51201-512000 and 512001-10485760, served from
 * chunks of 2048, 20480, 204800, 2097152 and 10485760 bytes; each class holds one chunk from
 * the start. Calling it again keeps the pools and changes only the limit. 1 when all five
 * classes exist, 0 otherwise. The library's last OXA_Fini tears the global pool down.
 */
OXA_API int OXA_MemoryPoolGlobal_Init(unsigned int total_bytes);
/**
 * Returns size bytes from the smallest class that takes them; null above 10485760, before
 * OXA_MemoryPoolGlobal_Init, or when a further chunk would pass the total limit.
 */
OXA_API void* OXA_MemoryPoolGlobal_Alloc(unsigned int size);
/** Frees a pointer from OXA_MemoryPoolGlobal_Alloc; null and unknown pointers are ignored. */
OXA_API void OXA_MemoryPoolGlobal_Free(void* pointer);
/** Bytes in the chunks of all classes; 0 unless all five classes exist. */
OXA_API unsigned int OXA_MemoryPoolGlobal_Size(void);
/** Idle bytes of all classes; 0 unless all five classes exist. */
OXA_API unsigned int OXA_MemoryPoolGlobal_IdleSize(void);

/* ---- Aligned allocation ---- */

/**
 * Returns size zero bytes at a multiple of alignment, which must be a power of two. The start
 * of the underlying heap buffer is kept in the word just before the returned address. Null with
 * errno EINVAL for alignment 0 or not a power of two, ENOMEM when memory runs out or the request
 * cannot be represented. Alignments of 2^31 and above never return: keep them below.
 */
OXA_API void* OXA_AlignedMalloc(unsigned int size, unsigned int alignment);
/** Frees a result of OXA_AlignedMalloc. Must not be given null or any other pointer. */
OXA_API void OXA_AlignedFree(void* pointer);

#ifdef __cplusplus
}  // extern "C"

#include <string>

#include "oxa_alarm.h"
#include "oxa_sync.h"

/** Sets the global pool up (see OXA_MemoryPoolGlobal_Init); 0, or -1 unless all classes exist. */
OXA_API int OXA_InitMemoryPool_Inter(unsigned int total_bytes);
/** Tears the global pool down, printing the classes' leak reports; 0. */
OXA_API int OXA_FiniMemoryPool_Inter();

namespace oxa {

namespace internal {

/**
 * Library-internal: a hash map from non-null pointers to pointers (open addressing, linear
 * probing). It stands where an ordered map would: lookups of foreign or interior pointers only
 * compare keys, and ordered walks sort a snapshot.
 */
class __attribute__((visibility("hidden"))) PointerMap {
 public:
  struct Entry {
    const void* key;  // null marks a free slot
    void* value;
  };

  PointerMap() noexcept : slots_(nullptr), capacity_(0), count_(0) {}
  ~PointerMap();
  PointerMap(const PointerMap&) = delete;
  PointerMap& operator=(const PointerMap&) = delete;

  /** The value under key, or null. */
  void* Find(const void* key) const;
  /**
   * Makes room for `extra` more keys; false when memory runs out (nothing changed). The table
   * never shrinks before Clear: it stays as large as the most keys it has held.
   */
  bool Reserve(size_t extra);
  /** Stores or overwrites key. REQUIRES: room reserved, key not null. */
  void Insert(const void* key, void* value);
  /** Removes key; its value, or null when it was absent. */
  void* Erase(const void* key);
  /** Removes every key and releases the table. */
  void Clear();
  size_t Count() const { return count_; }

  template <class Visit>
  void ForEach(Visit visit) const {
    for (size_t i = 0; i < capacity_; ++i) {
      if (slots_[i].key != nullptr) visit(slots_[i]);
    }
  }

 private:
  size_t Home(const void* key) const;
  bool Rehash(size_t capacity);

  Entry* slots_;
  size_t capacity_;  // 0 or a power of two
  size_t count_;
};

}  // namespace internal

/**
 * One heap buffer of `size` user bytes bracketed by guard words: 4 bytes of 0x16 before and 4
 * after, so overruns and underruns can be seen. Records whether it is lent, the last borrower's
 * thread id and, in milliseconds of OXA_GetTimeTick64, when it was created and last lent or
 * returned. Not thread-safe: its owner serialises access.
 */
class OXA_API CMemoryBlock {
 public:
  /** Allocates size + 8 bytes; on failure, or for size 0, the user pointer is null. */
  explicit CMemoryBlock(unsigned int size);
  ~CMemoryBlock();
  CMemoryBlock(const CMemoryBlock&) = delete;
  CMemoryBlock& operator=(const CMemoryBlock&) = delete;

  /** Lends the block to thread_id: the user pointer. Asserts it was not lent already. */
  char* Ptr(OXA_HANDLE thread_id);
  /** The start of the heap buffer (the head guard). */
  void* AllocPtr() const;
  /** Takes the block back. Asserts it was lent. */
  void Reset();
  /** true when a guard byte is not 0x16 (tail checked first). Needs a non-null buffer. */
  bool BoundaryOverflow() const;
  /** Rewrites both guards, when the block has a user pointer. */
  void ResetBoundary();
  /** Last time minus tick, in milliseconds: minus the idle time for now. Asserts not lent. */
  oxa_int64 TimeOffset(oxa_uint64 tick) const;
  /** One line describing the block, guards included, for leak reports. */
  std::string ToString() const;

  // Library-internal: the same as Ptr and Reset with the owner's time stamp, and Reset
  // without one for owners that never read an idle block's time.
  __attribute__((visibility("hidden"))) char* Lend(OXA_HANDLE thread_id, oxa_uint64 now_ms);
  __attribute__((visibility("hidden"))) void Return();
  bool Lent() const { return m_bUsed; }
  char* UserPtr() const { return user_; }

 private:
  unsigned int size_;
  char* alloc_;  // size_ + 8 bytes from the heap, or null
  char* user_;   // alloc_ + 4, or null
  bool m_bUsed;  // lent out
  OXA_HANDLE last_thread_;
  oxa_uint64 create_ms_;
  oxa_uint64 last_ms_;  // creation, last lend or last return
};

/**
 * The fixed-size pool's engine; see OXA_MemoryPool_Create for the behaviour. Blocks are lent
 * most recently returned first; idle shrinking destroys the longest idle first.
 */
class OXA_API CRealMemoryPool {
 public:
  CRealMemoryPool(unsigned int block_size, unsigned int initial_count, unsigned int max_count,
                  bool boundary_check, long long idle_timeout_ms, bool no_lock);
  /** Stops the idle checks and frees every block, lent or not. */
  virtual ~CRealMemoryPool();
  CRealMemoryPool(const CRealMemoryPool&) = delete;
  CRealMemoryPool& operator=(const CRealMemoryPool&) = delete;

  /** Creates the initial blocks. */
  void Init();
  /** Init, then starts the idle checks' thread when there is an idle time-out. */
  void Start();
  void* Alloc();
  void Free(void* block);
  unsigned int Size() const;
  unsigned int IdleSize() const;
  /** Stops the idle checks and prints one leak line per lent block on standard output. */
  void Stop();
  /** Frees every block, lent or not. */
  void Cleanup();
  /** Schedules the idle check after delayed_millis (>= 0, asserted). REQUIRES: pool lock. */
  void CheckIdleTimeout(oxa_int64 delayed_millis);
  /** The alarm callback: runs the idle check of the pool given as user data. */
  static void OnAlarm(void* clock, int id, void* pool);
  /** The idle check: destroys expired idle blocks down to the initial count. */
  void OnCheckIdleTimeoutTask(OXA_INT32 unused);

 private:
  struct Node;

  __attribute__((visibility("hidden"))) Node* NewBlock();
  __attribute__((visibility("hidden"))) void DestroyBlock(Node* node);
  __attribute__((visibility("hidden"))) void PushIdleFront(Node* node);
  __attribute__((visibility("hidden"))) Node* PopIdleFront();
  __attribute__((visibility("hidden"))) void PopIdleBack();
  __attribute__((visibility("hidden"))) bool ShrinkOne(oxa_uint64 threshold_ms);

  unsigned int block_size_;
  unsigned int initial_count_;
  unsigned int max_count_;
  bool boundary_check_;
  oxa_int64 idle_timeout_ms_;  // negative: never shrink
  bool no_lock_;
  CAlarmClock clock_;
  mutable OXA_Mutex lock_;
  Node* idle_front_;  // most recently returned
  Node* idle_back_;   // idle longest
  unsigned int idle_count_;
  internal::PointerMap blocks_;  // every block, idle or lent, by user pointer
  unsigned int used_count_;
  OXA_INT32 check_state_;  // 0 none due, 1 due at the next return, 2 scheduled (or never)
};

/** A chunk in use by the variable-size pool. */
class OXA_API CUsedRecord {
 public:
  /** ", \"AllocPtr\": ..., \"UsedNum\": n }": starts with a comma, no opening brace. */
  std::string ToString() const;

  void* AllocPtr;            // the chunk
  char* IdlePtr;             // its next free byte
  unsigned int RemainBytes;  // bytes from IdlePtr to the chunk's end
  int m_iUsedNum;            // live requests carved from it
};

/** The variable-size pool's engine; see OXA_MemoryPoolEx_Create for the behaviour. */
class OXA_API CRealMemoryPoolEx {
 public:
  CRealMemoryPoolEx(unsigned int initial_count, unsigned int max_count, long long idle_timeout_ms,
                    bool no_lock, unsigned int chunk_size);
  virtual ~CRealMemoryPoolEx();
  CRealMemoryPoolEx(const CRealMemoryPoolEx&) = delete;
  CRealMemoryPoolEx& operator=(const CRealMemoryPoolEx&) = delete;

  void Start();
  void* Alloc(unsigned int size);
  void Free(void* request);
  unsigned int Size() const;
  unsigned int IdleSize() const;
  /** Prints one leak line per live request, then the chunk pool's own report. */
  void Stop();
  /** Frees every request and chunk. */
  void Cleanup();

  // Library-internal: whether size <= IdleSize(), without the chunk pool's lock when the
  // current chunk holds the request.
  __attribute__((visibility("hidden"))) bool FitsIdle(unsigned int size) const;

 private:
  __attribute__((visibility("hidden"))) bool StartChunk();
  __attribute__((visibility("hidden"))) void Release(CUsedRecord* record);

  CRealMemoryPool pool_;  // supplies the chunks; locked after lock_
  bool no_lock_;
  unsigned int chunk_size_;
  mutable OXA_Mutex lock_;
  char* last_;                            // the latest request
  CUsedRecord* current_;                  // the chunk requests are carved from, or null
  internal::PointerMap m_mapUsedRecords;  // live request -> its record
};

/** Sets the global pool up: true when all five classes exist. */
OXA_API bool OXA_InitMemoryPool(unsigned int total_bytes);
/** Destroys the class pools (each prints its leak report). */
OXA_API void OXA_FiniMemoryPool();
/**
 * The class pool for a request of reference_size bytes, which becomes the class's chunk size;
 * null above 10485760 bytes (size left unchanged) or when the class pool does not exist.
 */
OXA_API OXA_MemoryPoolEx* OXA_GetMemoryPoolEx(unsigned int& reference_size);
/** Bytes in all class pools; 0 unless all five exist. Takes no lock. */
OXA_API unsigned int OXA_GetMemoryPoolExTotalSize();
/** Idle bytes of all class pools; 0 unless all five exist. Takes no lock. */
OXA_API unsigned int OXA_GetMemoryPoolExTotalIdleSize();

}  // namespace oxa

/** A fixed-size pool owned by an object; see OXA_MemoryPool_Create. Does nothing (null / 0)
 * when its engine could not be allocated. */
class OXA_API OXA_MemoryPool {
 public:
  OXA_MemoryPool(unsigned int block_size, unsigned int initial_count, unsigned int max_count,
                 int boundary_check, long long idle_timeout_ms, int no_lock);
  /** Prints the leak report, then frees every block. */
  virtual ~OXA_MemoryPool();
  OXA_MemoryPool(const OXA_MemoryPool&) = delete;
  OXA_MemoryPool& operator=(const OXA_MemoryPool&) = delete;

  void* Alloc();
  void Free(void* block);
  unsigned int Size() const;
  unsigned int IdleSize() const;

 private:
  oxa::CRealMemoryPool* pool_;
};

/** A variable-size pool owned by an object; see OXA_MemoryPoolEx_Create. */
class OXA_API OXA_MemoryPoolEx {
 public:
  OXA_MemoryPoolEx(unsigned int initial_count, unsigned int max_count, long long idle_timeout_ms,
                   int no_lock, unsigned int chunk_size);
  /** Prints the leak report, then frees everything. */
  virtual ~OXA_MemoryPoolEx();
  OXA_MemoryPoolEx(const OXA_MemoryPoolEx&) = delete;
  OXA_MemoryPoolEx& operator=(const OXA_MemoryPoolEx&) = delete;

  void* Alloc(unsigned int size);
  void Free(void* request);
  unsigned int Size() const;
  unsigned int IdleSize() const;

  // Library-internal: whether size <= IdleSize(), cheaply (see CRealMemoryPoolEx).
  __attribute__((visibility("hidden"))) bool FitsIdle(unsigned int size) const;

 private:
  oxa::CRealMemoryPoolEx* pool_;
};

#endif  // __cplusplus

#endif /* OXA_MEMORY_H_ */
