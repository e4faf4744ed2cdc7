// errno kept across clean-up, and system calls retried when a signal interrupts them.
#ifndef OXA_SRC_FRAME_ERRNO_UTIL_H_
#define OXA_SRC_FRAME_ERRNO_UTIL_H_

#include <errno.h>

namespace oxa::internal {

// Restores errno when it goes out of scope, so that closing descriptors or printing a
// diagnostic after a failure leaves the failing call's errno for the caller.
class ErrnoSaver {
 public:
  ErrnoSaver() : saved_(errno) {}
  ~ErrnoSaver() { errno = saved_; }
  ErrnoSaver(const ErrnoSaver&) = delete;
  ErrnoSaver& operator=(const ErrnoSaver&) = delete;

  int value() const { return saved_; }

 private:
  int saved_;
};

// Repeats a call that fails with -1 and EINTR; any other result is returned as it is.
template <typename Call>
auto RetryOnEintr(Call call) -> decltype(call()) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

}  // namespace oxa::internal

#endif  // OXA_SRC_FRAME_ERRNO_UTIL_H_
