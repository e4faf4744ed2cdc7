// A byte ring buffer in one allocation (header, then the data area) that hands its contents
// to a reader callback. The lock guards positions and count only; the reader runs unlocked.
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "oxa_hash.h"
#include "oxa_sync.h"

struct OXA_CYCLE_BUFFER_T {
  char* data;             // the area right after this header
  uint32_t size;          // bytes in the area
  uint32_t write_pos;     // next byte to write. Guarded by mutex.
  uint32_t read_pos;      // next byte to hand over. Guarded by mutex.
  uint32_t stored;        // bytes written and not yet handed over. Guarded by mutex.
  pthread_mutex_t mutex;  // recursive, created with OXA_MutexCreate
  OXA_CYCLE_BUFFER_READER reader;
  void* user;
};

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_CYCLE_BUFFER_T) == 52, "cycle buffer header is ABI");
#endif

namespace {

constexpr unsigned int kRecursive = 0xFFFFFFFFu;  // OXA_MutexCreate's recursive type
constexpr uint32_t kSizeLimit = 0x80000000u;

// Holds the buffer's mutex for a scope.
class Hold {
 public:
  explicit Hold(OXA_CYCLE_BUFFER buffer) : mutex_(&buffer->mutex) { OXA_MutexLock(mutex_); }
  ~Hold() { OXA_MutexUnlock(mutex_); }
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

void Store(OXA_CYCLE_BUFFER buffer, const char* bytes, uint32_t length) {
  const uint32_t to_end = buffer->size - buffer->write_pos;
  if (length < to_end) {
    memcpy(buffer->data + buffer->write_pos, bytes, length);
    buffer->write_pos += length;
  } else {
    memcpy(buffer->data + buffer->write_pos, bytes, to_end);
    memcpy(buffer->data, bytes + to_end, length - to_end);
    buffer->write_pos = length - to_end;
  }
  buffer->stored += length;
}

// Calls the reader with the q stored bytes that start at r, w being the write position.
// For compatibility the first piece of a wrapped read is size - q bytes long rather than
// size - r; where that would run past the end of the area (q < r) it is cut to the end, so
// the reader never sees bytes outside the buffer.
void HandOver(OXA_CYCLE_BUFFER buffer, uint32_t q, uint32_t r, uint32_t w) {
  const uint32_t size = buffer->size;
  if (static_cast<uint64_t>(q) + r >= size) {
    buffer->reader(buffer->data + r, std::min(size - q, size - r), buffer->user);
    buffer->reader(buffer->data, w, buffer->user);
  } else {
    buffer->reader(buffer->data + r, q, buffer->user);
  }
}

}  // namespace

// ---- C entry points ---------------------------------------------------------

extern "C" int OXA_CycleBufferInit(OXA_CYCLE_BUFFER* buffer, unsigned int size,
                                   OXA_CYCLE_BUFFER_READER reader, void* user) {
  if (buffer == nullptr || reader == nullptr || size == 0 || size >= kSizeLimit) return -1;
  auto* created = static_cast<OXA_CYCLE_BUFFER>(calloc(1, sizeof(OXA_CYCLE_BUFFER_T) + size));
  if (created == nullptr) return -1;
  created->data = reinterpret_cast<char*>(created + 1);
  created->size = size;
  created->reader = reader;
  created->user = user;
  OXA_MutexCreate(&created->mutex, kRecursive);
  *buffer = created;
  return 0;
}

extern "C" int OXA_CycleBufferWrite(OXA_CYCLE_BUFFER buffer, const void* bytes,
                                    unsigned int length) {
  if (buffer == nullptr || bytes == nullptr || length == 0) return -1;
  Hold hold(buffer);
  if (static_cast<uint64_t>(buffer->stored) + length > buffer->size) return -1;
  Store(buffer, static_cast<const char*>(bytes), length);
  return 0;
}

extern "C" int OXA_CycleBufferRead(OXA_CYCLE_BUFFER buffer) {
  if (buffer == nullptr) return -1;
  uint32_t q, r, w;
  {
    Hold hold(buffer);
    q = buffer->stored;
    r = buffer->read_pos;
    w = buffer->write_pos;
  }
  if (q == 0) return -1;
  if (buffer->reader != nullptr) HandOver(buffer, q, r, w);
  Hold hold(buffer);
  buffer->read_pos = w;
  buffer->stored -= q;  // bytes written meanwhile stay counted
  return 0;
}

extern "C" int OXA_CycleBufferValue(OXA_CYCLE_BUFFER buffer, unsigned int* stored) {
  if (buffer == nullptr || stored == nullptr) return -1;
  Hold hold(buffer);
  *stored = buffer->stored;
  return 0;
}

extern "C" int OXA_CycleBufferDestroy(OXA_CYCLE_BUFFER buffer) {
  if (buffer == nullptr) return -1;
  OXA_MutexDestroy(&buffer->mutex);
  free(buffer);
  return 0;
}
