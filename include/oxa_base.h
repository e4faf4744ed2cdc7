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
#define OXA_TRUE 1  /**< The boolean result "true" (often also the success result). */
#define OXA_FALSE 0 /**< The boolean result "false" (often also the failure result). */

/**
 * All ones: the time-out in milliseconds that means "no limit" wherever a function says so.
 * Not every wait treats it so: OXA_CondTimedWait, for one, waits about 49.7 days.
 */
#define OXA_INFINITE 0xFFFFFFFFu

/** A signed 64-bit integer; a time value is an oxa_int64 of microseconds since the epoch. */
typedef long long oxa_int64;
/** An unsigned 64-bit integer, such as the 64-bit millisecond tick. */
typedef unsigned long long oxa_uint64;
/** A signed 32-bit integer. */
typedef int32_t OXA_INT32;

/**
 * A thread handle: the system thread identifier. 32 bits on the 32-bit target, as wide as the
 * system identifier elsewhere. OXA_INVALID_HANDLE means no thread.
 */
typedef unsigned long OXA_HANDLE;
/**
 * The invalid thread handle, all ones: returned when a thread cannot be created, and refused
 * (with -1) by every function that takes a handle.
 */
#define OXA_INVALID_HANDLE ((OXA_HANDLE)-1)

#endif /* OXA_BASE_H_ */
