// The log service's file target: numbered files in one directory, rotated by size.
#ifndef OXA_SRC_LOG_LOG_FILE_SINK_H_
#define OXA_SRC_LOG_LOG_FILE_SINK_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include <atomic>
#include <mutex>

#include "log/staging_queue.h"

namespace oxa::internal {

// Writes lines to DIR "oxa_log_N_w.log" and renames that to DIR "oxa_log_N.log" when the next
// line would take it past the maximum size. The file size is kept in memory rather than
// sought for; it counts exactly the bytes written, so files rotate at the same line
// boundaries as a seek would give. Lines of one batch go out with one writev per file.
//
// Every member function takes mu_; the writer thread and the target switch meet only here.
class LogFileSink {
 public:
  static constexpr size_t kMaxDirectory = 256;
  static constexpr uint32_t kDefaultMaxBytes = 0x200000;
  static constexpr uint32_t kCycleFiles = 100;
  // Lines written with one system call at most.
  static constexpr size_t kMaxBatch = 1024;

  LogFileSink() = default;
  ~LogFileSink();
  LogFileSink(const LogFileSink&) = delete;
  LogFileSink& operator=(const LogFileSink&) = delete;

  // Files on (StartWriteFile, then cyclic as given) or off (StopWriteFile, cyclic back to
  // true). 0, or -6 for a directory that is too long (the files stay as they were).
  int SwitchFileService(bool on, const char* directory, unsigned int max_bytes, bool cyclic);
  // Writes each line without its terminator; nothing while files are off.
  void InputLines(const LogLine* lines, size_t count);
  bool on() const { return on_.load(std::memory_order_relaxed); }

 private:
  // REQUIRES: mu_ held, for all below.
  int StartWriteFile(const char* directory, unsigned int max_bytes);
  int StopWriteFile();
  // One line (without terminator) into the current file, rotating first when it would
  // overflow. 0, or -8 when no file could be renamed or opened.
  int InputDataToFile(const char* data, uint32_t length);
  // The current number's name, being written ("_w") or finished, in name_.
  const char* MakeFileName(bool writing);
  int RotateFile();
  int OpenFile();
  // Writes the gathered lines; a failure is reported once until writing works again.
  void FlushPending();
  // After a failed write: the file ends after the last whole line again (a partly written
  // line is cut off), and the failure is reported.
  void DropTornLine(int64_t line_end, bool torn);

  std::mutex mu_;
  std::atomic<bool> on_{false};  // Written under mu_; read without it for the target check.
  int fd_ = -1;
  uint32_t index_ = 0;  // the file number is index_ + 1
  bool cyclic_ = true;
  int64_t max_bytes_ = 0;
  int64_t size_ = 0;  // bytes written to the open file, gathered ones included
  bool write_failing_ = false;
  char directory_[kMaxDirectory + 4] = {};
  // Room for the longest directory, the file name and any file number.
  char name_[kMaxDirectory + 64] = {};
  iovec pending_[kMaxBatch] = {};
  size_t pending_count_ = 0;
};

}  // namespace oxa::internal

#endif  // OXA_SRC_LOG_LOG_FILE_SINK_H_
