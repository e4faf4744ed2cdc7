// Thin access to the calling thread's errno and the system's error texts.
#include <errno.h>
#include <string.h>

#include "oxa_frame.h"

namespace {

// Large enough for every glibc message; strerror_r cuts longer ones.
constexpr size_t kErrorTextBytes = 256;

}  // namespace

extern "C" {

OXA_API int OXA_GetSystemLastError(void) { return errno; }

OXA_API void OXA_SetSystemLastError(int code) { errno = code; }

OXA_API const char* OXA_GetSystemErrorString(int code) {
  // strerror is not thread-safe; the GNU strerror_r returns either a constant text or this
  // thread's buffer, which stays valid until the thread's next call.
  thread_local char text[kErrorTextBytes];
  return strerror_r(code, text, sizeof text);
}

}  // extern "C"
