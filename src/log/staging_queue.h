// The log service's staging buffer and its queue of lines.
#ifndef OXA_SRC_LOG_STAGING_QUEUE_H_
#define OXA_SRC_LOG_STAGING_QUEUE_H_

#include <stddef.h>
#include <stdint.h>

#include <memory>

namespace oxa::internal {

// A queued line: where it sits in the staging buffer and its length, terminator included.
struct LogLine {
  const char* data;
  uint32_t length;
};

// Lines are copied into one 2 MiB buffer in queue order, each in one contiguous piece, and
// wrap to the start of the buffer when the tail has no room. A line's bytes belong to it from
// Push until Release: Take hands lines to the writer without giving their space back, so a
// wrap can never overwrite a line that is still queued or being written. A line that finds
// no room is refused (-4); the skipped tail at a wrap is never counted as room.
//
// The queue records live in a ring sized for the shortest possible line, so queueing
// allocates nothing and cannot fail for want of memory.
//
// Not thread-safe: the owner guards every call with its queue mutex.
class StagingQueue {
 public:
  static constexpr uint32_t kBufferBytes = 0x200000;
  // Every line carries a prefix of at least 46 bytes plus CR, LF and the terminator.
  static constexpr uint32_t kShortestLine = 49;

  StagingQueue() = default;
  ~StagingQueue() = default;
  StagingQueue(const StagingQueue&) = delete;
  StagingQueue& operator=(const StagingQueue&) = delete;

  // Allocates the buffer and the records, empty; false when memory is exhausted.
  bool Allocate();
  // Frees both; every line is forgotten.
  void Free();
  bool allocated() const { return buffer_ != nullptr; }

  // Copies a line in; 0, or -4 when it does not fit (nothing changes then).
  int Push(const char* line, uint32_t length);
  // The oldest lines not yet taken, at most `max`, in order; returns how many.
  size_t Take(LogLine* lines, size_t max);
  // Gives back the space of the oldest `count` taken lines.
  void Release(size_t count);
  // Forgets the lines not yet taken; taken ones keep their space until released.
  void DropUntaken() { pushed_ = taken_; }
  bool HasUntaken() const { return pushed_ != taken_; }
  // Running counts of lines pushed and released; they wrap, so compare by difference.
  uint32_t pushed() const { return pushed_; }
  uint32_t released() const { return released_; }

 private:
  static constexpr uint32_t kRecords = kBufferBytes / kShortestLine + 1;

  struct Record {
    uint32_t offset;
    uint32_t length;
  };

  // Where a line of `length` bytes can go, or -1 when nowhere.
  int64_t Place(uint32_t length) const;

  std::unique_ptr<char[]> buffer_;
  std::unique_ptr<Record[]> records_;
  // Running counts of lines pushed, taken and released; a record's slot is count % kRecords.
  // released_ <= taken_ <= pushed_, and pushed_ - released_ <= kRecords.
  uint32_t pushed_ = 0;
  uint32_t taken_ = 0;
  uint32_t released_ = 0;
  uint32_t write_pos_ = 0;  // where the next line would go without wrapping
};

}  // namespace oxa::internal

#endif  // OXA_SRC_LOG_STAGING_QUEUE_H_
