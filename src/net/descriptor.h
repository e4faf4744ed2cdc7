// Argument checks shared by the socket functions: descriptors that poll would ignore and
// lengths that would turn into huge sizes.
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

// A negative length would become a huge size for the system, which would then read or write
// far past the caller's buffer. It is refused with EINVAL before memory or the socket is
// touched.
inline bool IsBadLength(int len) {
  if (len >= 0) return false;
  errno = EINVAL;
  return true;
}

}  // namespace internal
}  // namespace oxa

#endif  // OXA_SRC_NET_DESCRIPTOR_H_
