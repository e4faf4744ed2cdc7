#include "log/staging_queue.h"

#include <string.h>

#include <new>

namespace oxa::internal {

bool StagingQueue::Allocate() {
  buffer_.reset(new (std::nothrow) char[kBufferBytes]);
  records_.reset(new (std::nothrow) Record[kRecords]);
  if (!buffer_ || !records_) {
    Free();
    return false;
  }
  pushed_ = taken_ = released_ = write_pos_ = 0;
  return true;
}

void StagingQueue::Free() {
  buffer_.reset();
  records_.reset();
  pushed_ = taken_ = released_ = write_pos_ = 0;
}

// Live bytes are [head, write_pos_) when they do not wrap, or [head, end of the last line
// before the wrap) plus [0, write_pos_) when they do; head is the oldest unreleased line.
int64_t StagingQueue::Place(uint32_t length) const {
  constexpr int64_t kNowhere = -1;
  if (released_ == pushed_) return length <= kBufferBytes ? 0 : kNowhere;
  if (pushed_ - released_ == kRecords) return kNowhere;
  const uint32_t head = records_[released_ % kRecords].offset;
  if (write_pos_ > head) {
    if (length <= kBufferBytes - write_pos_) return write_pos_;
    return length <= head ? 0 : kNowhere;  // wrap: the start must be clear up to head
  }
  if (length <= head - write_pos_) return write_pos_;
  return kNowhere;
}

int StagingQueue::Push(const char* line, uint32_t length) {
  const int64_t at = Place(length);
  if (at < 0) return -4;
  const auto offset = static_cast<uint32_t>(at);
  memcpy(buffer_.get() + offset, line, length);
  records_[pushed_ % kRecords] = Record{offset, length};
  ++pushed_;
  write_pos_ = offset + length;
  return 0;
}

size_t StagingQueue::Take(LogLine* lines, size_t max) {
  size_t count = 0;
  for (; count < max && taken_ != pushed_; ++count, ++taken_) {
    const Record& record = records_[taken_ % kRecords];
    lines[count] = LogLine{buffer_.get() + record.offset, record.length};
  }
  return count;
}

void StagingQueue::Release(size_t count) { released_ += static_cast<uint32_t>(count); }

}  // namespace oxa::internal
