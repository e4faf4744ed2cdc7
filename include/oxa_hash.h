/** \file
 * liboxa: two fixed-capacity hash tables (string keys, unsigned integer keys) with open
 * addressing and double hashing, and a byte ring buffer that hands its contents to a reader
 * callback.
 *
 * The hash tables take no lock: callers serialise every use of one table. The cycle buffer
 * allows one writer and one reader at the same time.
 */
#ifndef OXA_HASH_H_
#define OXA_HASH_H_

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The header of a hash table; a table's handle is the address of its header. The slot array
 * has size + 1 slots (slot 0 is never used) of OXA_SIMPLE_HASH_SLOT or OXA_SIMPLE_INT_HASH_SLOT.
 * Read them freely; change nothing.
 */
typedef struct OXA_SIMPLE_HASH_HEADER {
  void* slots;         /**< the slot array */
  unsigned int size;   /**< usable slots, fixed at creation */
  unsigned int filled; /**< occupied slots */
} OXA_SIMPLE_HASH_HEADER;

/** A slot of a string-keyed table: used is the key's home index (1 to size), 0 while free. */
typedef struct OXA_SIMPLE_HASH_SLOT {
  unsigned int used; /**< the key's home index, 0 while the slot is free */
  const char* key;   /**< the caller's key string */
  void* data;        /**< the data entered with it */
} OXA_SIMPLE_HASH_SLOT;

/** A slot of an integer-keyed table: occupied while marker is the complement of key. */
typedef struct OXA_SIMPLE_INT_HASH_SLOT {
  unsigned int marker; /**< ~key while occupied */
  unsigned int key;    /**< the key */
  void* data;          /**< the data entered with it */
} OXA_SIMPLE_INT_HASH_SLOT;

/** A hash table handle: the address of its header. */
typedef OXA_SIMPLE_HASH_HEADER* OXA_SIMPLE_HASH;

/** A string-keyed entry. The key is the caller's string: the table keeps the pointer only. */
typedef struct OXA_SIMPLE_HASH_ENTRY {
  const char* key; /**< the key string, kept by pointer; must stay valid while entered */
  void* data;      /**< the caller's data */
} OXA_SIMPLE_HASH_ENTRY;

/** An integer-keyed entry. */
typedef struct OXA_SIMPLE_INT_HASH_ENTRY {
  unsigned int key; /**< the key */
  void* data;       /**< the caller's data */
} OXA_SIMPLE_INT_HASH_ENTRY;

/** A header-shaped object, zero at load. No function of the library uses it. */
OXA_API extern OXA_SIMPLE_HASH_HEADER OXA_HSEARCH_DATA;
/** The same for integer keys: zero at load, unused by the library. */
OXA_API extern OXA_SIMPLE_HASH_HEADER OXA_HSEARCH_INTDATA;

/**
 * Creates a string-keyed table for about capacity entries into *table. Its size is the first
 * number from capacity | 1 upwards, in steps of 2, that is prime (or 1): 0 and 1 give 1, 3 gives
 * 5, 10 gives 11. The table holds at most size entries.
 * Returns 0; -1 when table is null or the allocation fails (for example, a capacity near 2^32),
 * with *table unchanged.
 */
OXA_API int OXA_SimpleHashCreate(unsigned int capacity, OXA_SIMPLE_HASH* table);
/**
 * Creates an integer-keyed table, sized as OXA_SimpleHashCreate does. Returns 0; -1 when table
 * is null or the allocation fails, with *table unchanged.
 */
OXA_API int OXA_SimpleIntHashCreate(unsigned int capacity, OXA_SIMPLE_HASH* table);

/**
 * Enters a key and its data into a string-keyed table; the key string is kept by pointer, not
 * copied. Returns 0 when the key is now present with this data (also when it was already there
 * with the same data); -1 when the table is full, the key is already present with other data
 * (which is kept), or the table or key is null. A failure changes nothing.
 */
OXA_API int OXA_SimpleHashEnter(OXA_SIMPLE_HASH_ENTRY entry, OXA_SIMPLE_HASH table);
/**
 * Enters a key and its data into an integer-keyed table. Returns 0 when the key is now present
 * with this data (also when it was already there with the same data); -1 when the table is
 * full, the key is already present with other data (which is kept), or the table is null.
 */
OXA_API int OXA_SimpleIntHashEnter(OXA_SIMPLE_INT_HASH_ENTRY entry, OXA_SIMPLE_HASH table);

/**
 * Looks a key up in a string-keyed table: 0 with its data in *data; -1 with *data = null when it
 * is absent (or when the table or key is null; a null data pointer gives -1 and is not written).
 */
OXA_API int OXA_SimpleHashFind(const char* key, void** data, OXA_SIMPLE_HASH table);
/**
 * Looks a key up in an integer-keyed table: 0 with its data in *data; -1 with *data = null when
 * it is absent or the table is null (a null data pointer gives -1 and is not written).
 */
OXA_API int OXA_SimpleIntHashFind(unsigned int key, void** data, OXA_SIMPLE_HASH table);

/**
 * Removes a key from a string-keyed table: 0, with filled one lower; -1 when it is absent or an
 * argument is null, with nothing changed. Another entry of the same home slot may move into the
 * freed slot. Removal can cut the probe path of other keys that passed through the slot it
 * frees, which may then no longer be found: tables that remove entries accept this.
 */
OXA_API int OXA_SimpleHashRemove(const char* key, OXA_SIMPLE_HASH table);
/**
 * Removes a key from an integer-keyed table: 0, with filled one lower; -1 when it is absent or
 * the table is null. The same caveat as for OXA_SimpleHashRemove applies.
 */
OXA_API int OXA_SimpleIntHashRemove(unsigned int key, OXA_SIMPLE_HASH table);

/**
 * Frees a string-keyed table (not the key strings or data): 0; -1 for a null handle. The handle
 * is invalid afterwards.
 */
OXA_API int OXA_SimpleHashDestroy(OXA_SIMPLE_HASH table);
/** Frees an integer-keyed table: 0; -1 for a null handle. The handle is invalid afterwards. */
OXA_API int OXA_SimpleIntHashDestroy(OXA_SIMPLE_HASH table);

/** A cycle buffer handle. */
typedef struct OXA_CYCLE_BUFFER_T* OXA_CYCLE_BUFFER;

/** Reader callback: is handed stored bytes, in order, in one or two pieces. */
typedef void (*OXA_CYCLE_BUFFER_READER)(const char* bytes, unsigned int length, void* user);

/**
 * Creates a buffer of size bytes (1 to 2^31 - 1) whose reads go to reader with user, into
 * *buffer. 0; -1 for a null buffer or reader, a bad size or a failed allocation, with *buffer
 * unchanged.
 */
OXA_API int OXA_CycleBufferInit(OXA_CYCLE_BUFFER* buffer, unsigned int size,
                                OXA_CYCLE_BUFFER_READER reader, void* user);

/**
 * Stores length bytes, whole or not at all. 0; -1 for a null buffer or bytes, a length of 0,
 * or when the bytes do not fit in the free space (size minus stored), with nothing stored.
 */
OXA_API int OXA_CycleBufferWrite(OXA_CYCLE_BUFFER buffer, const void* bytes, unsigned int length);

/**
 * Hands the stored bytes to the reader and discards them: 0; -1 for a null buffer or an empty
 * one (the reader is then not called). The reader runs without the buffer's lock. When the
 * stored bytes reach or pass the end of the area (read position + stored >= size) it is called
 * twice, for compatibility with a first piece of size - stored bytes from the read position
 * (cut at the end of the area when that is shorter) and a second piece from the start to the
 * write position (possibly empty). While stored <= read position the pieces hold exactly the
 * stored bytes; when more is stored, only read-position-many bytes are handed over and the
 * rest are discarded unseen (a full buffer read from position 0 hands over nothing). Bytes
 * written while the reader runs stay stored.
 */
OXA_API int OXA_CycleBufferRead(OXA_CYCLE_BUFFER buffer);

/** The stored byte count into *stored: 0; -1 for a null buffer or pointer (nothing written). */
OXA_API int OXA_CycleBufferValue(OXA_CYCLE_BUFFER buffer, unsigned int* stored);

/** Frees the buffer: 0; -1 for a null handle. Not while a read or write runs. */
OXA_API int OXA_CycleBufferDestroy(OXA_CYCLE_BUFFER buffer);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif /* OXA_HASH_H_ */
