#include "log/log_file_sink.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "oxa_file.h"
#include "oxa_frame.h"

#include "frame/errno_util.h"

namespace oxa::internal {
namespace {

constexpr char kDefaultDirectory[] = "./oxalog/";

}  // namespace

LogFileSink::~LogFileSink() {
  if (fd_ >= 0) ::close(fd_);
}

int LogFileSink::SwitchFileService(bool on, const char* directory, unsigned int max_bytes,
                                   bool cyclic) {
  std::lock_guard<std::mutex> hold(mu_);
  if (!on) {
    StopWriteFile();
    cyclic_ = true;
    return 0;
  }
  const int result = StartWriteFile(directory, max_bytes);
  cyclic_ = cyclic;
  return result;
}

int LogFileSink::StartWriteFile(const char* directory, unsigned int max_bytes) {
  if (directory == nullptr || directory[0] == '\0') directory = kDefaultDirectory;
  const size_t length = strlen(directory);
  if (length > kMaxDirectory) {
    OXA_OutputDebug("LogService directory of %zu characters refused, at most %zu", length,
                    kMaxDirectory);
    return -6;
  }
  memcpy(directory_, directory, length + 1);
  std::replace(directory_, directory_ + length, '\\', '/');
  if (directory_[length - 1] != '/') memcpy(directory_ + length, "/", 2);
  max_bytes_ = max_bytes != 0 ? max_bytes : kDefaultMaxBytes;
  OXA_MakeDir(directory_);  // an existing directory is fine; a real failure shows at open
  on_.store(true, std::memory_order_relaxed);
  return 0;
}

int LogFileSink::StopWriteFile() {
  if (!on_.load(std::memory_order_relaxed)) return 0;
  on_.store(false, std::memory_order_relaxed);
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  directory_[0] = '\0';
  max_bytes_ = 0;
  return 0;
}

const char* LogFileSink::MakeFileName(bool writing) {
  const int number = static_cast<int>(index_ + 1);
  if (writing) {
    snprintf(name_, sizeof name_, "%s%s%d%s%s", directory_, "oxa_log_", number, "_w", ".log");
  } else {
    snprintf(name_, sizeof name_, "%s%s%d%s", directory_, "oxa_log_", number, ".log");
  }
  return name_;
}

void LogFileSink::InputLines(const LogLine* lines, size_t count) {
  std::lock_guard<std::mutex> hold(mu_);
  if (!on_.load(std::memory_order_relaxed)) return;
  for (size_t i = 0; i < count; ++i)
    InputDataToFile(lines[i].data, lines[i].length - 1);
  FlushPending();
}

int LogFileSink::InputDataToFile(const char* data, uint32_t length) {
  if (fd_ >= 0 && max_bytes_ < size_ + length) {
    FlushPending();
    if (RotateFile() != 0) return -8;
  }
  if (fd_ < 0 && OpenFile() != 0) return -8;
  if (pending_count_ == kMaxBatch) FlushPending();
  pending_[pending_count_++] = iovec{const_cast<char*>(data), length};
  size_ += length;
  return 0;
}

int LogFileSink::RotateFile() {
  ::close(fd_);
  fd_ = -1;
  char writing[sizeof name_];
  memcpy(writing, MakeFileName(true), sizeof writing);
  if (OXA_RenameFile(writing, MakeFileName(false)) != 0) {
    OXA_OutputDebug("LogService RenameFile[%s] failed, errno %d", writing, errno);
    return -8;
  }
  index_ = cyclic_ ? (index_ + 1) % kCycleFiles : index_ + 1;
  return 0;
}

int LogFileSink::OpenFile() {
  OXA_DeleteFile(MakeFileName(false));
  const char* name = MakeFileName(true);
  fd_ = OXA_OpenFile(name, OXA_FOPEN_WRITE | OXA_FOPEN_CREATE | OXA_FOPEN_TRUNC,
                     OXA_FPROT_USER_READ | OXA_FPROT_USER_WRITE);
  if (fd_ < 0) {
    OXA_OutputDebug("LogService OpenFile[%s] failed", name);
    return -8;
  }
  // The library's own log stays out of programs that the application executes.
  ::fcntl(fd_, F_SETFD, FD_CLOEXEC);
  size_ = 0;
  return 0;
}

void LogFileSink::FlushPending() {
  iovec* next = pending_;
  size_t left = pending_count_;
  pending_count_ = 0;
  // Where the last whole line written ends; at first, where this batch starts.
  int64_t line_end = size_;
  for (size_t i = 0; i < left; ++i)
    line_end -= static_cast<int64_t>(pending_[i].iov_len);
  size_t partial = 0;  // bytes of *next already written by a short write
  while (left > 0) {
    const int chunk = static_cast<int>(std::min<size_t>(left, IOV_MAX));
    const ssize_t done = RetryOnEintr([&] { return ::writev(fd_, next, chunk); });
    if (done < 0) {
      DropTornLine(line_end, partial > 0);
      return;
    }
    auto written = static_cast<size_t>(done);
    for (; left > 0 && written >= next->iov_len; --left, ++next) {
      written -= next->iov_len;
      line_end += static_cast<int64_t>(partial + next->iov_len);
      partial = 0;
    }
    if (left > 0 && written > 0) {
      next->iov_base = static_cast<char*>(next->iov_base) + written;
      next->iov_len -= written;
      partial += written;
    }
  }
  write_failing_ = false;
}

void LogFileSink::DropTornLine(int64_t line_end, bool torn) {
  const int error = errno;
  // Cut a line that went out only in part, so the file holds whole lines only and the next
  // line starts where this one did.
  if (torn && ::ftruncate(fd_, line_end) == 0) ::lseek(fd_, line_end, SEEK_SET);
  size_ = line_end;
  if (!write_failing_) {
    OXA_OutputDebug("LogService WriteFile[%s] failed, errno %d", MakeFileName(true), error);
  }
  write_failing_ = true;
}

}  // namespace oxa::internal
