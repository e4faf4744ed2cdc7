// Translation of pthread results to the flat interface's 0 / -1 with errno.
#ifndef OXA_SRC_FRAME_PTHREAD_RESULT_H_
#define OXA_SRC_FRAME_PTHREAD_RESULT_H_

#include <errno.h>

namespace oxa::internal {

// pthread calls return their error number instead of setting errno; callers of the flat
// interface look in errno, so the number is put there.
inline int ZeroOrError(int pthread_result) {
  if (pthread_result == 0) return 0;
  errno = pthread_result;
  return -1;
}

}  // namespace oxa::internal

#endif  // OXA_SRC_FRAME_PTHREAD_RESULT_H_
