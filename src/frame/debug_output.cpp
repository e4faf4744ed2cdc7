// The debug channel: one formatted line on standard error, no lock, no time stamp.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "oxa_frame.h"

namespace {

constexpr size_t kBufferBytes = 5120;
// Room left for the newline and the terminating zero: text is cut at kFormatLimit - 1.
constexpr size_t kFormatLimit = 5118;
constexpr char kFormatError[] = "OXA_OutputDebug error,input parameter is too long!!!";

}  // namespace

extern "C" {

OXA_API int OXA_OutputDebug(const char* format, ...) {
  char line[kBufferBytes] = {};
  va_list args;
  va_start(args, format);
  const int length = vsnprintf(line, kFormatLimit, format, args);
  va_end(args);
  if (length < 0) {
    memcpy(line, kFormatError, sizeof kFormatError);
  } else {
    // A longer text was cut by the formatter; the newline goes right after what was kept.
    const size_t end = std::min(static_cast<size_t>(length), kFormatLimit - 1);
    line[end] = '\n';
    line[end + 1] = '\0';
  }
  return fputs(line, stderr);
}

OXA_API int OXA_OutputDebugString(const char* text) {
  if (text == nullptr) return EOF;
  return fputs(text, stderr);
}

OXA_API void OXA_Debug(const char* /*format*/, ...) {}

}  // extern "C"
