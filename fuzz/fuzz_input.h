// Reads a fuzzer's input as a stream of small values; past the end every read gives 0.
#ifndef OXA_FUZZ_FUZZ_INPUT_H_
#define OXA_FUZZ_FUZZ_INPUT_H_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

namespace oxa_fuzz {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool empty() const { return pos_ >= size_; }
  uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  template <typename T>
  T Value() {
    T value{};
    const size_t n = size_ - pos_ < sizeof value ? size_ - pos_ : sizeof value;
    memcpy(&value, data_ + pos_, n);
    pos_ += n;
    return value;
  }
  // Up to max_length bytes, the length taken from the input.
  std::string Bytes(size_t max_length) {
    size_t length = Byte() % (max_length + 1);
    if (length > size_ - pos_) length = size_ - pos_;
    std::string bytes(reinterpret_cast<const char*>(data_ + pos_), length);
    pos_ += length;
    return bytes;
  }
  // Everything that is left.
  std::string Rest() {
    std::string bytes(reinterpret_cast<const char*>(data_ + pos_), size_ - pos_);
    pos_ = size_;
    return bytes;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

}  // namespace oxa_fuzz

// A failed property: says which and aborts, so libFuzzer keeps the input as a crash.
#define OXA_FUZZ_CHECK(condition)                                                      \
  do {                                                                                 \
    if (!(condition)) {                                                                \
      fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #condition); \
      abort();                                                                         \
    }                                                                                  \
  } while (0)

#endif  // OXA_FUZZ_FUZZ_INPUT_H_
