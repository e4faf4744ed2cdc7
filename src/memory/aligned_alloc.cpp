// Aligned allocation: zero-filled heap memory at a power-of-two boundary, with the start of the
// heap buffer kept in the word just before the returned address.
//
// The word is as wide as a pointer: 32 bits on the 32-bit target, 64 on a 64-bit host.
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>

#include "oxa_memory.h"

namespace {

using StartWord = uintptr_t;

// floor(log2 a) found by shifting a, read as signed 32-bit, right until it is 0. From 2^31 up
// the value is negative and an arithmetic shift never reaches 0: the loop does not end, which
// is the documented contract (callers keep alignments below 2^31). The volatile keeps the
// compiler from assuming the loop ends.
int FloorLog2(unsigned int alignment) {
  volatile int32_t rest = static_cast<int32_t>(alignment);
  int shifts = 0;
  while (rest != 0) {
    rest = rest >> 1;
    ++shifts;
  }
  return shifts - 1;
}

bool IsPowerOfTwo(unsigned int alignment) {
  return alignment == 1 || alignment == 1u << FloorLog2(alignment);
}

}  // namespace

extern "C" {

OXA_API void* OXA_AlignedMalloc(unsigned int size, unsigned int alignment) {
  if (alignment == 0 || !IsPowerOfTwo(alignment)) {
    errno = EINVAL;
    return nullptr;
  }
  // size_t is only 32 bits on the target: a sum that wraps would hand out a short buffer.
  const size_t total = static_cast<size_t>(size) + alignment + sizeof(StartWord);
  if (total < size) {
    errno = ENOMEM;
    return nullptr;
  }
  void* buffer = calloc(total, 1);
  if (buffer == nullptr) return nullptr;  // errno from calloc
  const uintptr_t start = reinterpret_cast<uintptr_t>(buffer);
  uintptr_t aligned = start + sizeof(StartWord);
  if (aligned % alignment != 0) aligned = alignment * ((aligned + alignment) / alignment);
  reinterpret_cast<StartWord*>(aligned)[-1] = start;
  return reinterpret_cast<void*>(aligned);
}

OXA_API void OXA_AlignedFree(void* pointer) {
  free(reinterpret_cast<void*>(static_cast<StartWord*>(pointer)[-1]));
}

}  // extern "C"
