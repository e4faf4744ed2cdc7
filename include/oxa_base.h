/** \file
 * liboxa: basic types, result values and the export marker shared by every family header.
 */
#ifndef OXA_BASE_H_
#define OXA_BASE_H_

#include <stdint.h>

/** Marks a function, object or class that liboxa exports; everything else is hidden. */
#define OXA_API __attribute__((visibility("default")))

/** The common failure result of functions that return int. */
#define OXA_ERROR (-1)
/** Boolean results. */
#define OXA_TRUE 1
#define OXA_FALSE 0

/** All ones: a time-out in milliseconds that never expires. */
#define OXA_INFINITE 0xFFFFFFFFu

/** Signed and unsigned 64-bit integers; a time value is an oxa_int64 of microseconds. */
typedef long long oxa_int64;
typedef unsigned long long oxa_uint64;
typedef int32_t OXA_INT32;

/**
 * A thread handle: the system thread identifier. 32 bits on the 32-bit target, as wide as the
 * system identifier elsewhere. OXA_INVALID_HANDLE ((OXA_HANDLE)-1) means no thread.
 */
typedef unsigned long OXA_HANDLE;
#define OXA_INVALID_HANDLE ((OXA_HANDLE)-1)

#endif /* OXA_BASE_H_ */
