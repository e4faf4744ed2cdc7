/** \file
 * liboxa: system information and small services: sleeping, a random number, zeroing memory,
 * the processor count, unique identifiers and their text form, per-processor time counters
 * and memory figures.
 */
#ifndef OXA_SYSINFO_H_
#define OXA_SYSINFO_H_

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Time counters of one processor, in the kernel's clock ticks (USER_HZ, usually 100 a second),
 * as read from "/proc/stat". Every counter is read as a 32-bit value: a wider value is cut to
 * 32 bits the way the C library's 32-bit conversion does it (its low 32 bits on 64-bit builds,
 * 0xFFFFFFFF on 32-bit builds). Sums are formed after the cut.
 */
typedef struct OXA_CPU_TIMES {
  oxa_uint64 uIdle;      /**< idle */
  oxa_uint64 uSystem;    /**< system */
  oxa_uint64 uUser;      /**< user + nice */
  oxa_uint64 uIdleTotal; /**< idle + iowait */
  oxa_uint64 uInterrupt; /**< irq + softirq */
  oxa_uint64 uReserved1; /**< never written: keeps what the caller put there */
  oxa_uint64 uReserved2; /**< never written: keeps what the caller put there */
} OXA_CPU_TIMES;

/**
 * Memory figures in bytes, from "/proc/meminfo" (kB values read as 32-bit numbers, then times
 * 1024).
 */
typedef struct OXA_MEMORY_STATUS {
  oxa_uint64 uTotal; /**< MemTotal */
  /** MemAvailable; MemFree + Buffers + Cached where that is missing or not above MemFree */
  oxa_uint64 uAvailable;
  oxa_uint64 uSwapTotal; /**< SwapTotal */
  oxa_uint64 uSwapFree;  /**< SwapFree */
  oxa_uint64 uReserved1; /**< 0 */
  oxa_uint64 uReserved2; /**< 0 */
} OXA_MEMORY_STATUS;

/** Size of a unique identifier in bytes. */
#define OXA_UUID_SIZE 16
/** Characters of an identifier's text form, without the terminating zero. */
#define OXA_UUID_TEXT_LENGTH 36

/**
 * Sleeps ms milliseconds (usleep of ms * 1000, a 32-bit product that wraps beyond about 71
 * minutes); usleep's result: 0, or -1 with errno (EINTR for a signal).
 */
OXA_API int OXA_Sleep(unsigned int ms);

/** Sleeps us microseconds; usleep's result (0, or -1 with errno, EINTR for a signal). */
OXA_API int OXA_USleep(unsigned int us);

/**
 * Seeds the C library's generator with OXA_GetTimeTick() and returns its next number
 * (0 to 2^31 - 1). Every call reseeds, so calls within the same millisecond return the same
 * number: this is a cheap varying value, not a random sequence. Shares the generator of
 * srandom/random with the rest of the process.
 */
OXA_API long OXA_Rand(void);

/** Fills length bytes at memory with zero; returns memory. A null pointer is returned as is. */
OXA_API void* OXA_ZeroMemory(void* memory, unsigned int length);

/** The number of configured processors (online or not); -1 when the system cannot tell. */
OXA_API int OXA_GetCPUNumber(void);

/** Fills 16 bytes with a new unique identifier (libuuid). 0; -1 for a null pointer. */
OXA_API int OXA_GetUUID(unsigned char uuid[OXA_UUID_SIZE]);

/**
 * Writes the identifier as text: "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X" of
 * bytes 0-3 read as one native 32-bit number, bytes 4-5 and 6-7 each read as one native 16-bit
 * number, then bytes 8-15 one by one (so on a little-endian processor the first three groups
 * show their bytes reversed). The text needs 37 bytes with the terminator; a size of 36 is
 * accepted and loses the last hex digit. 0; -1, with buffer untouched, when size < 36 or a
 * pointer is null.
 */
OXA_API int OXA_StringFromUUID(const unsigned char uuid[OXA_UUID_SIZE], char* buffer, int size);

/**
 * Fills one OXA_CPU_TIMES per configured processor from "/proc/stat", in the order of the
 * per-processor lines there. *size is in bytes: on entry the room at records, on return the
 * room needed (56 times OXA_GetCPUNumber()). Returns -1 when size is null or the processor
 * count cannot be read (*size unchanged), when the room is too small (call again with the
 * stored size), when records is null, when "/proc/stat" cannot be opened (errno from the open;
 * records untouched), or when it has fewer per-processor lines than processors (the records
 * of the lines read are filled); 0 otherwise. Lines that do not parse give zero counters.
 */
OXA_API int OXA_GetCPUPerformance(OXA_CPU_TIMES* records, unsigned int* size);

/**
 * Fills status from "/proc/meminfo". 0; -1 when status is null (nothing changed), when the
 * file cannot be opened (errno from the open; the record is left all zero) or when it ends
 * before MemTotal, SwapTotal and SwapFree were all seen (the record is zeroed first, then keeps
 * those of the three that were seen; uAvailable stays 0).
 */
OXA_API int OXA_GetMemoryStatus(OXA_MEMORY_STATUS* status);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif /* OXA_SYSINFO_H_ */
