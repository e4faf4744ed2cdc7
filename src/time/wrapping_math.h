// Two's-complement arithmetic on 64-bit values without undefined behaviour.
#ifndef OXA_SRC_TIME_WRAPPING_MATH_H_
#define OXA_SRC_TIME_WRAPPING_MATH_H_

namespace oxa::internal {

// Time values are plain 64-bit counts; sums and products that leave the range wrap around
// instead of being undefined, so out-of-range input gives a value, never a trap.
inline long long WrappingAdd(long long a, long long b) {
  return static_cast<long long>(static_cast<unsigned long long>(a) +
                                static_cast<unsigned long long>(b));
}

inline long long WrappingSub(long long a, long long b) {
  return static_cast<long long>(static_cast<unsigned long long>(a) -
                                static_cast<unsigned long long>(b));
}

inline long long WrappingMul(long long a, long long b) {
  return static_cast<long long>(static_cast<unsigned long long>(a) *
                                static_cast<unsigned long long>(b));
}

}  // namespace oxa::internal

#endif  // OXA_SRC_TIME_WRAPPING_MATH_H_
