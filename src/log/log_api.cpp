// The log service's entry points: line formatting on the caller's thread, target switches,
// and the one-call switch OXA_Log.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "oxa_log.h"

#include "log/log_engine.h"

namespace {

using oxa::internal::Engine;
using oxa::internal::LogEngine;

constexpr size_t kLineBytes = 2048;
// CR, LF and the terminator always fit behind prefix and text.
constexpr size_t kLastTextEnd = kLineBytes - 3;
constexpr unsigned int kPrefixRoom = kLineBytes - 1;

const char* LevelName(log_level level) {
  switch (level) {
    case OXA_LOG_DISABLE:
      return "DISABLE";
    case OXA_LOG_ERR:
      return "ERR";
    case OXA_LOG_DBG:
      return "DBG";
    case OXA_LOG_INF:
      return "INF";
  }
  return "UNKNOWN";
}

// The file name without any directory, with "/" and "\" both taken as separators.
const char* BaseName(const char* path) {
  const char* base = path;
  for (const char* at = path; *at != '\0'; ++at) {
    if (*at == '/' || *at == '\\') base = at + 1;
  }
  return base;
}

// "[YYYY-MM-DD hh:mm:ss.000]" of the current local second. Each thread formats it once a
// second and keeps it: the time-zone conversion and the formatter stay off the per-line path.
struct Stamp {
  time_t second = -1;
  size_t length = 0;
  char text[48] = {};
};

const Stamp& StampNow() {
  thread_local Stamp stamp;
  const time_t now = time(nullptr);
  if (now != stamp.second) {
    struct tm local {};
    localtime_r(&now, &local);
    // The millisecond field is always 0: lines of one second carry the same stamp.
    const int length = snprintf(
        stamp.text, sizeof stamp.text, "[%04u-%02u-%02u %02u:%02u:%02u.%03u]",
        static_cast<unsigned>(local.tm_year + 1900), static_cast<unsigned>(local.tm_mon + 1),
        static_cast<unsigned>(local.tm_mday), static_cast<unsigned>(local.tm_hour),
        static_cast<unsigned>(local.tm_min), static_cast<unsigned>(local.tm_sec), 0u);
    stamp.length = static_cast<size_t>(std::max(length, 0));
    stamp.second = now;
  }
  return stamp;
}

// The decimal text of value, as %d writes it, into `out` (room for 11 characters); its length.
size_t Decimal(int value, char* out) {
  char reversed[12];
  size_t count = 0;
  // Works on the unsigned magnitude, so the most negative value has no overflow.
  auto magnitude = static_cast<unsigned int>(value);
  if (value < 0) magnitude = 0u - magnitude;
  do {
    reversed[count++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  size_t length = 0;
  if (value < 0) out[length++] = '-';
  while (count > 0)
    out[length++] = reversed[--count];
  return length;
}

// Text assembled piece by piece with snprintf's rules: at most size - 1 bytes and a
// terminator are stored, and the length counts everything that was asked for.
class BoundedText {
 public:
  BoundedText(char* buffer, size_t size) : buffer_(buffer), size_(size) {}

  BoundedText& Add(const char* text, size_t length) {
    if (length_ + 1 < size_) memcpy(buffer_ + length_, text, std::min(length, size_ - 1 - length_));
    length_ += length;
    return *this;
  }
  BoundedText& Add(const char* text) { return Add(text, strlen(text)); }
  // Terminates what was stored and returns the full length.
  int Finish() {
    if (size_ > 0) buffer_[std::min(length_, size_ - 1)] = '\0';
    return static_cast<int>(length_);
  }

 private:
  char* buffer_;
  size_t size_;
  size_t length_ = 0;
};

int ServiceStartIfNeeded(LogEngine& engine) { return engine.started() ? 0 : engine.ServiceStart(); }

}  // namespace

// The same text as "[%04u-%02u-%02u %02u:%02u:%02u.%03u][%s][FILE:%s][LINE:%d] " would give,
// and the same result as snprintf, assembled without the formatter on the per-line path.
OXA_API int FormatTimeAndName(char* buffer, unsigned int size, log_level level, const char* file,
                              int line) {
  if (buffer == nullptr && size != 0) return -1;
  const Stamp& stamp = StampNow();
  char number[16];
  const size_t digits = Decimal(line, number);
  return BoundedText(buffer, size)
      .Add(stamp.text, stamp.length)
      .Add("[")
      .Add(LevelName(level))
      .Add("][FILE:")
      .Add(BaseName(file != nullptr ? file : ""))
      .Add("][LINE:")
      .Add(number, digits)
      .Add("] ")
      .Finish();
}

int LogService::ServiceStart() { return Engine().ServiceStart(); }

int LogService::ServiceStop(bool wait) { return Engine().ServiceStop(wait); }

int LogService::PushData(const char* line, unsigned int length) {
  if (line == nullptr) return OXA_LOG_BAD_ARGUMENT;
  return Engine().PushData(line, length);
}

int LogService::SwitchFileService(bool on, const char* directory, unsigned int size, bool cyclic) {
  return Engine().files_.SwitchFileService(on, directory, size, cyclic);
}

OXA_API LogService* GetLogService() {
  static LogService service;
  Engine();  // built with the facade, so both live until exit
  return &service;
}

extern "C" {

OXA_API int WriteLog(log_level level, const char* file, int line, const char* format, ...) {
  if (format == nullptr || file == nullptr) return OXA_LOG_BAD_ARGUMENT;
  LogEngine& engine = Engine();
  if (level > engine.level()) return OXA_LOG_FILTERED;
  if (!engine.AnyTargetOn()) return OXA_LOG_NO_TARGET;
  const int started = ServiceStartIfNeeded(engine);
  if (started != 0) return started;

  char text[kLineBytes];
  const int formed = FormatTimeAndName(text, kPrefixRoom, level, file, line);
  if (formed < 0) return OXA_LOG_FORMAT_FAILED;
  // The formatters report the length they wanted; what was copied is clamped to the room.
  const size_t prefix = std::min(static_cast<size_t>(formed), kLastTextEnd);
  va_list args;
  va_start(args, format);
  const int wanted = vsnprintf(  // NOLINT(clang-analyzer-valist.Uninitialized): started above
      text + prefix, kPrefixRoom - prefix, format, args);
  va_end(args);
  if (wanted < 0) return OXA_LOG_FORMAT_FAILED;
  const size_t end = std::min(prefix + static_cast<size_t>(wanted), kLastTextEnd);
  memcpy(text + end, "\r\n", 3);
  return engine.PushData(text, static_cast<uint32_t>(end + 3));
}

OXA_API int AdjustLogLevel(log_level level) {
  Engine().set_level(level);
  return 0;
}

OXA_API int EnableTarget(log_services target, const void* parameter, unsigned int size,
                         unsigned int cyclic) {
  LogEngine& engine = Engine();
  switch (target) {
    case OXA_LOG_TO_CONSOLE:
      engine.console_on_ = true;
      return 0;
    case OXA_LOG_TO_DEBUG:
      engine.debug_on_ = true;
      return 0;
    case OXA_LOG_TO_FILES:
      // A refused directory is reported on the debug channel; the result stays 0.
      engine.files_.SwitchFileService(true, static_cast<const char*>(parameter), size, cyclic != 0);
      return 0;
  }
  return OXA_LOG_BAD_ARGUMENT;
}

OXA_API int DisableTarget(log_services target) {
  if (target < OXA_LOG_TO_CONSOLE || target > OXA_LOG_TO_FILES) return OXA_LOG_BAD_ARGUMENT;
  LogEngine& engine = Engine();
  // Lines accepted while the target was on still reach it.
  engine.Flush();
  switch (target) {
    case OXA_LOG_TO_CONSOLE:
      engine.console_on_ = false;
      break;
    case OXA_LOG_TO_DEBUG:
      engine.debug_on_ = false;
      break;
    case OXA_LOG_TO_FILES:
      engine.files_.SwitchFileService(false, nullptr, 0, false);
      break;
    default:
      return OXA_LOG_BAD_ARGUMENT;
  }
  if (!engine.AnyTargetOn()) engine.ServiceStop(true);
  return 0;
}

OXA_API int StartLogService(void) {
  Engine().SetStopped(false);
  return 0;
}

OXA_API int StopLogService(bool stop) {
  LogEngine& engine = Engine();
  engine.SetStopped(stop);
  return engine.ServiceStop(true);
}

OXA_API int OXA_Log(unsigned int flags, const char* directory) {
  if (flags == 0) {
    DisableTarget(OXA_LOG_TO_CONSOLE);
    DisableTarget(OXA_LOG_TO_FILES);
    StopLogService(true);
    return 0;
  }
  StartLogService();
  if ((flags & 1) != 0) EnableTarget(OXA_LOG_TO_CONSOLE, nullptr, 0, 0);
  if ((flags & 2) != 0) EnableTarget(OXA_LOG_TO_FILES, directory, 0, 0);
  AdjustLogLevel(OXA_LOG_INF);
  return 0;
}

OXA_API void oxa2_log(void) {}

}  // extern "C"
