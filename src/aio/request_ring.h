// A first-in, first-out queue of request pointers in a ring that only grows. Once it has
// reached the depth a socket needs, pushing and popping never touch the heap, unlike a
// deque, which allocates and frees a node every few hundred requests.
#ifndef OXA_SRC_AIO_REQUEST_RING_H_
#define OXA_SRC_AIO_REQUEST_RING_H_

#include <stddef.h>
#include <string.h>

#include <new>

#include "oxa_aio.h"

namespace oxa::internal {

class RequestRing {
 public:
  RequestRing() = default;
  ~RequestRing() { delete[] slots_; }
  RequestRing(const RequestRing&) = delete;
  RequestRing& operator=(const RequestRing&) = delete;

  // Makes room for `capacity` requests (a power of two); false when memory runs out.
  bool Reserve(size_t capacity) { return capacity <= capacity_ || Resize(capacity); }

  size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  IO_DATA* front() const { return count_ == 0 ? nullptr : slots_[head_]; }

  // False when the ring was full and could not grow; the ring is unchanged then.
  bool push_back(IO_DATA* request) {
    if (count_ == capacity_ && !Resize(capacity_ == 0 ? kFirstCapacity : capacity_ * 2)) {
      return false;
    }
    slots_[(head_ + count_) & (capacity_ - 1)] = request;
    ++count_;
    return true;
  }

  // REQUIRES: !empty().
  IO_DATA* pop_front() {
    IO_DATA* request = slots_[head_];
    head_ = (head_ + 1) & (capacity_ - 1);
    --count_;
    return request;
  }

 private:
  static constexpr size_t kFirstCapacity = 64;

  bool Resize(size_t capacity) {
    auto* grown = new (std::nothrow) IO_DATA*[capacity];
    if (grown == nullptr) return false;
    // Unroll the ring into the start of the new array, oldest first.
    const size_t first_part = count_ < capacity_ - head_ ? count_ : capacity_ - head_;
    if (count_ != 0) {
      memcpy(grown, slots_ + head_, first_part * sizeof(IO_DATA*));
      memcpy(grown + first_part, slots_, (count_ - first_part) * sizeof(IO_DATA*));
    }
    delete[] slots_;
    slots_ = grown;
    capacity_ = capacity;
    head_ = 0;
    return true;
  }

  IO_DATA** slots_ = nullptr;
  size_t capacity_ = 0;  // 0 or a power of two
  size_t head_ = 0;
  size_t count_ = 0;
};

}  // namespace oxa::internal

#endif  // OXA_SRC_AIO_REQUEST_RING_H_
