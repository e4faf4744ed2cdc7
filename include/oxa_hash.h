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
  unsigned int used;
  const char* key;
  void* data;
} OXA_SIMPLE_HASH_SLOT;

/** A slot of an integer-keyed table: occupied while marker is the complement of key. */
typedef struct OXA_SIMPLE_INT_HASH_SLOT {
  unsigned int marker;
  unsigned int key;
  void* data;
} OXA_SIMPLE_INT_HASH_SLOT;

/** A hash table handle: the address of its header. */
typedef OXA_SIMPLE_HASH_HEADER* OXA_SIMPLE_HASH;

/** A string-keyed entry. The key is the caller's string: the table keeps the pointer only. */
typedef struct OXA_SIMPLE_HASH_ENTRY {
  const char* key;
  void* data;
} OXA_SIMPLE_HASH_ENTRY;

/** An integer-keyed entry. */
typedef struct OXA_SIMPLE_INT_HASH_ENTRY {
  unsigned int key;
  void* data;
} OXA_SIMPLE_INT_HASH_ENTRY;

/** Two header-shaped objects, zero at load. No function of the library uses them. */
OXA_API extern OXA_SIMPLE_HASH_HEADER OXA_HSEARCH_DATA;
OXA_API extern OXA_SIMPLE_HASH_HEADER OXA_HSEARCH_INTDATA;

/**
 * Creates a table for about capacity entries. Its size is the first number from capacity | 1
 * upwards, in steps of 2, that is prime (or 1): 0 and 1 give 1, 3 gives 5, 10 gives 11.
 * 0; -1 when table is null or the allocation fails (for example, a capacity near 2^32).
 */
OXA_API int OXA_SimpleHashCreate(unsigned int capacity, OXA_SIMPLE_HASH* table);
OXA_API int OXA_SimpleIntHashCreate(unsigned int capacity, OXA_SIMPLE_HASH* table);

/**
 * Enters a key and its data. 0 when the key is now present with this data (also when it was
 * already there with the same data); -1 when the table is full, the key is already present with
 * other data (which is kept), or the table or key is null.
 */
OXA_API int OXA_SimpleHashEnter(OXA_SIMPLE_HASH_ENTRY entry, OXA_SIMPLE_HASH table);
OXA_API int OXA_SimpleIntHashEnter(OXA_SIMPLE_INT_HASH_ENTRY entry, OXA_SIMPLE_HASH table);

/**
 * Looks a key up: 0 with its data in *data; -1 with *data = null when it is absent (or when
 * the table or key is null; a null data pointer gives -1 and is not written).
 */
OXA_API int OXA_SimpleHashFind(const char* key, void** data, OXA_SIMPLE_HASH table);
OXA_API int OXA_SimpleIntHashFind(unsigned int key, void** data, OXA_SIMPLE_HASH table);

/**
 * Removes a key: 0, or -1 when it is absent or an argument is null. filled falls by one.
 * Removal can cut the probe path of other keys that passed through the freed slot, which may
 * then no longer be found: tables that remove entries accept this.
 */
OXA_API int OXA_SimpleHashRemove(const char* key, OXA_SIMPLE_HASH table);
OXA_API int OXA_SimpleIntHashRemove(unsigned int key, OXA_SIMPLE_HASH table);

/** Frees the table: 0; -1 for a null handle. */
OXA_API int OXA_SimpleHashDestroy(OXA_SIMPLE_HASH table);
OXA_API int OXA_SimpleIntHashDestroy(OXA_SIMPLE_HASH table);

/** A cycle buffer handle. */
typedef struct OXA_CYCLE_BUFFER_T* OXA_CYCLE_BUFFER;

/** Reader callback: is handed stored bytes, in order, in one or two pieces. */
typedef void (*OXA_CYCLE_BUFFER_READER)(const char* bytes, unsigned int length, void* user);

/**
 * Creates a buffer of size bytes (1 to 2^31 - 1) whose reads go to reader with user. 0; -1 for
 * a null buffer or reader, a bad size or a failed allocation.
 */
OXA_API int OXA_CycleBufferInit(OXA_CYCLE_BUFFER* buffer, unsigned int size,
                                OXA_CYCLE_BUFFER_READER reader, void* user);

/**
 * Stores length bytes, whole or not at all. 0; -1 for a null buffer or bytes, a length of 0,
 * or when the bytes do not fit in the free space.
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

/** The stored byte count into *stored: 0; -1 for a null buffer or pointer. */
OXA_API int OXA_CycleBufferValue(OXA_CYCLE_BUFFER buffer, unsigned int* stored);

/** Frees the buffer: 0; -1 for a null handle. Not while a read or write runs. */
OXA_API int OXA_CycleBufferDestroy(OXA_CYCLE_BUFFER buffer);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif /* OXA_HASH_H_ */
