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
 * above 0 with a negative time-out takes no lock: the caller keeps the pool to one thread (with
 * a time-out, no_lock is ignored).
 *
 * Returns the pool, or null when the pool object itself cannot be allocated. Shortages after
 * that do not fail the creation: a pool whose engine cannot be allocated is returned all the
 * same and does nothing (null / 0 from every function); initial blocks that cannot be allocated
 * are left out, so the pool starts smaller; when the idle checks' thread cannot start, the pool
 * never shrinks. A block_size of 0 gives a pool that never lends a block.
 */
OXA_API OXA_MemoryPool* OXA_MemoryPool_Create(unsigned int block_size, unsigned int initial_count,
                                              unsigned int max_count, int boundary_check,
                                              long long idle_timeout_ms, int no_lock);
/**
 * Prints the leak report on standard output, one line "memory_pool[address] check memory leaked,
 * Block: ..." per block still lent, then frees every block, lent or not, and the pool. Null is
 * ignored. Pointers still lent dangle afterwards.
 */
OXA_API void OXA_MemoryPool_Destroy(OXA_MemoryPool* pool);
/**
 * Lends a block of block_size bytes, the most recently returned first, else a new one. Null
 * when max_count blocks are lent, when a new block cannot be allocated, and for a null pool.
 */
OXA_API void* OXA_MemoryPool_Alloc(OXA_MemoryPool* pool);
/**
 * Takes a block back. Null, foreign, interior and already returned pointers, and a null pool, are
 * ignored silently. With boundary_check on, a block whose guard bytes were overwritten aborts
 * the process (assertion "Check_boundary_overflow").
 */
OXA_API void OXA_MemoryPool_Free(OXA_MemoryPool* pool, void* block);
/** Bytes in all blocks, lent and idle (block size times block count); 0 for a null pool. */
OXA_API unsigned int OXA_MemoryPool_Size(OXA_MemoryPool* pool);
/** Bytes in idle blocks (block size times idle count); 0 for a null pool. */
OXA_API unsigned int OXA_MemoryPool_IdleSize(OXA_MemoryPool* pool);

/* ---- Variable-size pool: every function does nothing (null / 0) for a null pool. ---- */

/**
 * Creates a pool that carves requests of up to chunk_size bytes, packed byte-exact with no
 * alignment, from chunks of a fixed-size pool (initial_count chunks, 0 counting as 1, growing up
 * to max_count; idle_timeout_ms as for OXA_MemoryPool_Create). A chunk goes back when its last
 * request is freed; the current chunk is rewound instead. A no_lock above 0 takes no lock of
 * the pool's own (the caller keeps the pool to one thread); the chunk pool still locks itself
 * when there is a time-out.
 *
 * Returns the pool, or null when the pool object itself cannot be allocated. As with
 * OXA_MemoryPool_Create, a pool whose engine cannot be allocated is returned and does nothing,
 * and initial chunks that cannot be allocated are left out.
 */
OXA_API OXA_MemoryPoolEx* OXA_MemoryPoolEx_Create(unsigned int initial_count,
                                                  unsigned int max_count, long long idle_timeout_ms,
                                                  int no_lock, unsigned int chunk_size);
/**
 * Prints the leak report on standard output, one line "memory_pool_ex[address] check memory
 * leaked, Used record: ..." per live request (a chunk with three live requests shows three
 * times), then the chunk pool's own report; then frees every request, chunk and the pool. Null
 * is ignored.
 */
OXA_API void OXA_MemoryPoolEx_Destroy(OXA_MemoryPoolEx* pool);
/**
 * Returns size bytes from the current chunk, or from a new one when they do not fit there (the
 * rest of the old chunk stays unused until the chunk is rewound or returned). Null above
 * chunk_size, when max_count chunks are in use or memory runs out, and for a null pool; when a
 * new chunk cannot be had, the former current chunk takes no further requests. Do not ask for 0
 * bytes: the next request would get the same address, which aborts the process (assertion
 * "m_mapUsedRecords.find(pRet) == m_mapUsedRecords.end()").
 */
OXA_API void* OXA_MemoryPoolEx_Alloc(OXA_MemoryPoolEx* pool, unsigned int size);
/**
 * Frees a request. Null, unknown, interior and already freed pointers, and a null pool, are
 * ignored silently. Freeing the latest request gives its bytes back to the current chunk once,
 * so the same request gets the same address again; freeing the last live request of the current
 * chunk rewinds it; any other chunk goes back to the chunk pool with its last request.
 */
OXA_API void OXA_MemoryPoolEx_Free(OXA_MemoryPoolEx* pool, void* request);
/** Bytes in all chunks, in use and idle; 0 for a null pool. */
OXA_API unsigned int OXA_MemoryPoolEx_Size(OXA_MemoryPoolEx* pool);
/** Bytes in idle chunks plus what is left in the current chunk; 0 for a null pool. */
OXA_API unsigned int OXA_MemoryPoolEx_IdleSize(OXA_MemoryPoolEx* pool);

/* ---- The global pool: five size classes under one total limit. Thread-safe. ---- */

/**
 * Sets the global pool up with a total limit in bytes (cut to 0x80000000). Size classes, in
 * request bytes: 0-500, 501-5120, 5121-51200, 51201-512000 and 512001-10485760, served from
 * chunks of 2048, 20480, 204800, 2097152 and 10485760 bytes; each class holds one chunk from
 * the start (12810240 bytes in all, whatever the limit). Calling it again keeps the existing
 * class pools, creates any that are missing, and changes the limit.
 *
 * Returns 1 when all five classes exist, 0 otherwise (out of memory); the classes that do exist
 * serve requests all the same. Nothing else in the library calls it; the library's last OXA_Fini
 * tears the global pool down (with the classes' leak reports).
 */
OXA_API int OXA_MemoryPoolGlobal_Init(unsigned int total_bytes);
/**
 * Returns size bytes from the smallest class that takes them. Null above 10485760, before
 * OXA_MemoryPoolGlobal_Init or after the global pool was torn down, when a further chunk would
 * pass the total limit (a request that fits in the class's idle memory is never refused by
 * the limit), or when memory runs out; nothing is printed and errno is not set. As with
 * OXA_MemoryPoolEx_Alloc, do not ask for 0 bytes: the next request of the smallest class
 * would get the same address and abort the process.
 */
OXA_API void* OXA_MemoryPoolGlobal_Alloc(unsigned int size);
/**
 * Frees a pointer from OXA_MemoryPoolGlobal_Alloc. Null, unknown and already freed pointers are
 * ignored, and so are pointers still live when the global pool was torn down.
 */
OXA_API void OXA_MemoryPoolGlobal_Free(void* pointer);
/** Bytes in the chunks of all classes; 0 unless all five classes exist. */
OXA_API unsigned int OXA_MemoryPoolGlobal_Size(void);
/** Idle bytes of all classes; 0 unless all five classes exist. */
OXA_API unsigned int OXA_MemoryPoolGlobal_IdleSize(void);

/* ---- Aligned allocation ---- */

/**
 * Returns size bytes, all zero, at a multiple of alignment, which must be a power of two (1
 * included). The start of the underlying heap buffer is kept in the word just before the
 * returned address. Null with errno EINVAL for alignment 0 or not a power of two, ENOMEM when
 * memory runs out or the request cannot be represented. Alignments of 2^31 and above never
 * return (the call loops for ever): keep them below. Free the result with OXA_AlignedFree only.
 */
OXA_API void* OXA_AlignedMalloc(unsigned int size, unsigned int alignment);
/**
 * Frees a result of OXA_AlignedMalloc. There is no check: null or any other pointer reads the
 * word before it and crashes or corrupts the heap.
 */
OXA_API void OXA_AlignedFree(void* pointer);

#ifdef __cplusplus
}  // extern "C"

#include <string>

#include "oxa_alarm.h"
#include "oxa_sync.h"

/**
 * Sets the global pool up (see OXA_MemoryPoolGlobal_Init, which calls it): 0 when all five
 * classes exist, -1 otherwise.
 */
OXA_API int OXA_InitMemoryPool_Inter(unsigned int total_bytes);
/**
 * Tears the global pool down: destroys the class pools, printing their leak reports, and
 * forgets every live pointer. Always 0. Called by the library's last OXA_Fini.
 */
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
  /**
   * Allocates size + 8 bytes and writes the guards; on failure, or for size 0, the user pointer
   * is null (and for size 0 no guards are written). Never throws.
   */
  explicit CMemoryBlock(unsigned int size);
  ~CMemoryBlock();
  CMemoryBlock(const CMemoryBlock&) = delete;
  CMemoryBlock& operator=(const CMemoryBlock&) = delete;

  /**
   * Lends the block to thread_id: returns the user pointer (null when the block has none) and
   * stamps the time. A block already lent aborts the process (assertion "!m_bUsed").
   */
  char* Ptr(OXA_HANDLE thread_id);
  /** The start of the heap buffer (the head guard); null when the allocation failed. */
  void* AllocPtr() const;
  /**
   * Takes the block back and stamps the time. A block that is not lent aborts the process
   * (assertion "m_bUsed").
   */
  void Reset();
  /**
   * true when a guard byte is not 0x16 (tail checked first), else false. Needs a block with
   * guards: a failed allocation crashes it and a size-0 block gives a meaningless result.
   */
  bool BoundaryOverflow() const;
  /** Rewrites both guards, when the block has a user pointer; otherwise does nothing. */
  void ResetBoundary();
  /**
   * The last lend, return or creation time minus tick, in milliseconds: given the current tick,
   * minus the idle time. A lent block aborts the process (assertion "!m_bUsed").
   */
  oxa_int64 TimeOffset(oxa_uint64 tick) const;
  /**
   * One line describing the block for leak reports: its size, pointers, whether it is lent, the
   * last borrower's thread id, the creation and last times as wall-clock text and the guard
   * bytes, as { "BlockSize": n, "Alloc": "0x0x...", ..., "TailBoundary": " 0x16 0x16 0x16 0x16" }.
   * Pointers are written with "0x%p", so their prefix shows twice; the form is kept as it is.
   */
  std::string ToString() const;

  /** \cond */
  // Library-internal: the same as Ptr and Reset with the owner's time stamp, and Reset
  // without one for owners that never read an idle block's time.
  __attribute__((visibility("hidden"))) char* Lend(OXA_HANDLE thread_id, oxa_uint64 now_ms);
  __attribute__((visibility("hidden"))) void Return();
  /** \endcond */
  /** true while the block is lent. */
  bool Lent() const { return m_bUsed; }
  /** The user pointer (the heap buffer + 4), or null when the block has none. */
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
  /**
   * Stores the settings as OXA_MemoryPool_Create describes them (no_lock only counts with a
   * negative time-out); creates no block and starts no thread.
   */
  CRealMemoryPool(unsigned int block_size, unsigned int initial_count, unsigned int max_count,
                  bool boundary_check, long long idle_timeout_ms, bool no_lock);
  /** Stops the idle checks and frees every block, lent or not. */
  virtual ~CRealMemoryPool();
  CRealMemoryPool(const CRealMemoryPool&) = delete;
  CRealMemoryPool& operator=(const CRealMemoryPool&) = delete;

  /** Creates the initial blocks; those that cannot be allocated are left out. */
  void Init();
  /**
   * Init, then starts the idle checks' thread when there is an idle time-out (when it cannot
   * start, the pool never shrinks).
   */
  void Start();
  /** As OXA_MemoryPool_Alloc: a block, or null when max_count are lent or memory runs out. */
  void* Alloc();
  /**
   * As OXA_MemoryPool_Free: unknown pointers are ignored; with boundary checks, overwritten
   * guards abort the process.
   */
  void Free(void* block);
  /** Bytes in all blocks. */
  unsigned int Size() const;
  /** Bytes in idle blocks. */
  unsigned int IdleSize() const;
  /**
   * Stops the idle checks and prints one leak line per lent block on standard output; frees
   * nothing. The idle checks do not start again.
   */
  void Stop();
  /** Frees every block, lent or not. */
  void Cleanup();
  /**
   * Schedules the idle check after delayed_millis; a negative delay aborts the process
   * (assertion "delayedMillis >= 0"). When memory for the alarm runs out the pool stays grown.
   * REQUIRES: pool lock.
   */
  void CheckIdleTimeout(oxa_int64 delayed_millis);
  /** The alarm callback: runs the idle check of the pool given as user data (null: nothing). */
  static void OnAlarm(void* clock, int id, void* pool);
  /**
   * The idle check: destroys blocks idle for the time-out, longest idle first, down to the
   * initial count, and schedules itself again for the next block that is not yet due. Its
   * argument is not used.
   */
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
  /**
   * The record for leak reports: , "AllocPtr": "0x0x...", "IdlePtr": "0x0x...", "RemainBytes": n,
   * "UsedNum": n } -- it starts with a comma and has no opening brace, and the pointers show
   * their prefix twice; the form is kept as it is.
   */
  std::string ToString() const;

  void* AllocPtr;           /**< the chunk */
  char* IdlePtr;            /**< its next free byte */
  unsigned int RemainBytes; /**< bytes from IdlePtr to the chunk's end */
  int m_iUsedNum;           /**< live requests carved from it */
};

/** The variable-size pool's engine; see OXA_MemoryPoolEx_Create for the behaviour. */
class OXA_API CRealMemoryPoolEx {
 public:
  /**
   * Stores the settings as OXA_MemoryPoolEx_Create describes them and builds the chunk pool;
   * creates no chunk and starts no thread.
   */
  CRealMemoryPoolEx(unsigned int initial_count, unsigned int max_count, long long idle_timeout_ms,
                    bool no_lock, unsigned int chunk_size);
  /** Frees every request and chunk (Cleanup). */
  virtual ~CRealMemoryPoolEx();
  CRealMemoryPoolEx(const CRealMemoryPoolEx&) = delete;
  CRealMemoryPoolEx& operator=(const CRealMemoryPoolEx&) = delete;

  /** Starts the chunk pool: its initial chunks and, with a time-out, its idle checks. */
  void Start();
  /** As OXA_MemoryPoolEx_Alloc: size bytes, or null. Do not ask for 0 bytes. */
  void* Alloc(unsigned int size);
  /** As OXA_MemoryPoolEx_Free: unknown pointers are ignored. */
  void Free(void* request);
  /** Bytes in all chunks. */
  unsigned int Size() const;
  /** Bytes in idle chunks plus what is left in the current chunk. */
  unsigned int IdleSize() const;
  /**
   * Returns an unused current chunk to the chunk pool, prints one leak line per live request,
   * then the chunk pool's own report; frees nothing. The pool must not lend after it.
   */
  void Stop();
  /** Frees every request and chunk. */
  void Cleanup();

  /** \cond */
  // Library-internal: whether size <= IdleSize(), without the chunk pool's lock when the
  // current chunk holds the request.
  __attribute__((visibility("hidden"))) bool FitsIdle(unsigned int size) const;
  /** \endcond */

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

/**
 * Sets the global pool up (see OXA_MemoryPoolGlobal_Init): true when all five classes exist,
 * false otherwise.
 */
OXA_API bool OXA_InitMemoryPool(unsigned int total_bytes);
/**
 * Destroys the class pools (each prints its leak report) and forgets every live pointer, so a
 * late OXA_MemoryPoolGlobal_Free does nothing.
 */
OXA_API void OXA_FiniMemoryPool();
/**
 * The class pool for a request of reference_size bytes, which is rewritten to the class's chunk
 * size; null above 10485760 bytes (size left unchanged) or when the class pool does not exist
 * (size rewritten all the same). Takes no lock.
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
  /**
   * Builds and starts the pool as OXA_MemoryPool_Create describes; the flags count when above
   * 0. Without memory for the engine the object does nothing.
   */
  OXA_MemoryPool(unsigned int block_size, unsigned int initial_count, unsigned int max_count,
                 int boundary_check, long long idle_timeout_ms, int no_lock);
  /** Prints the leak report, then frees every block. */
  virtual ~OXA_MemoryPool();
  OXA_MemoryPool(const OXA_MemoryPool&) = delete;
  OXA_MemoryPool& operator=(const OXA_MemoryPool&) = delete;

  /** As OXA_MemoryPool_Alloc: a block, or null (also without an engine). */
  void* Alloc();
  /** As OXA_MemoryPool_Free: unknown pointers are ignored. */
  void Free(void* block);
  /** As OXA_MemoryPool_Size; 0 without an engine. */
  unsigned int Size() const;
  /** As OXA_MemoryPool_IdleSize; 0 without an engine. */
  unsigned int IdleSize() const;

 private:
  oxa::CRealMemoryPool* pool_;
};

/**
 * A variable-size pool owned by an object; see OXA_MemoryPoolEx_Create. Does nothing (null / 0)
 * when its engine could not be allocated.
 */
class OXA_API OXA_MemoryPoolEx {
 public:
  /**
   * Builds and starts the pool as OXA_MemoryPoolEx_Create describes; no_lock counts when above
   * 0. Without memory for the engine the object does nothing.
   */
  OXA_MemoryPoolEx(unsigned int initial_count, unsigned int max_count, long long idle_timeout_ms,
                   int no_lock, unsigned int chunk_size);
  /** Prints the leak report, then frees everything. */
  virtual ~OXA_MemoryPoolEx();
  OXA_MemoryPoolEx(const OXA_MemoryPoolEx&) = delete;
  OXA_MemoryPoolEx& operator=(const OXA_MemoryPoolEx&) = delete;

  /** As OXA_MemoryPoolEx_Alloc: size bytes, or null (also without an engine). */
  void* Alloc(unsigned int size);
  /** As OXA_MemoryPoolEx_Free: unknown pointers are ignored. */
  void Free(void* request);
  /** As OXA_MemoryPoolEx_Size; 0 without an engine. */
  unsigned int Size() const;
  /** As OXA_MemoryPoolEx_IdleSize; 0 without an engine. */
  unsigned int IdleSize() const;

  /** \cond */
  // Library-internal: whether size <= IdleSize(), cheaply (see CRealMemoryPoolEx).
  __attribute__((visibility("hidden"))) bool FitsIdle(unsigned int size) const;
  /** \endcond */

 private:
  oxa::CRealMemoryPoolEx* pool_;
};

#endif  // __cplusplus

#endif /* OXA_MEMORY_H_ */
