// Descriptor checks shared by the functions that wait on a socket before using it.
#ifndef OXA_SRC_NET_DESCRIPTOR_H_
#define OXA_SRC_NET_DESCRIPTOR_H_

#include <errno.h>

namespace oxa {
namespace internal {

// poll ignores a negative descriptor, so a wait on one would only run out its time-out, or
// never end without one. Such a descriptor fails at once, with EBADF as the system would say.
inline bool IsBadDescriptor(int fd) {
  if (fd >= 0) return false;
  errno = EBADF;
  return true;
}

}  // namespace internal
}  // namespace oxa

#endif  // OXA_SRC_NET_DESCRIPTOR_H_
