// Random writes and reads on a cycle buffer, checked against a byte-ring model: whole-or-nothing
// writes, the stored count, and exactly which bytes each reader call is handed.
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "oxa_hash.h"

#include "fuzz_input.h"

namespace {

struct Pieces {
  std::vector<std::string> got;
  static void Collect(const char* bytes, unsigned int length, void* user) {
    static_cast<Pieces*>(user)->got.emplace_back(bytes, length);  // ASan checks the range
  }
};

// What the buffer holds, position by position.
struct Model {
  explicit Model(uint32_t n) : ring(n, '\0'), size(n) {}
  std::string Range(uint32_t from, uint32_t length) const { return ring.substr(from, length); }
  std::string ring;
  uint32_t size;
  uint32_t read = 0, write = 0, stored = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oxa_fuzz::Input input(data, size);
  const uint32_t buffer_size = 1 + input.Byte() % 64;
  Pieces pieces;
  OXA_CYCLE_BUFFER buffer = nullptr;
  OXA_FUZZ_CHECK(OXA_CycleBufferInit(&buffer, buffer_size, &Pieces::Collect, &pieces) == 0);
  Model model(buffer_size);
  while (!input.empty()) {
    if (input.Byte() % 3 != 0) {
      const std::string bytes = input.Bytes(buffer_size + 2);
      const int result = OXA_CycleBufferWrite(buffer, bytes.data(), bytes.size());
      const bool fits = !bytes.empty() && model.stored + bytes.size() <= buffer_size;
      OXA_FUZZ_CHECK(result == (fits ? 0 : -1));
      if (fits) {
        for (char c : bytes) {
          model.ring[model.write] = c;
          model.write = (model.write + 1) % buffer_size;
        }
        model.stored += bytes.size();
      }
    } else {
      pieces.got.clear();
      const int result = OXA_CycleBufferRead(buffer);
      OXA_FUZZ_CHECK(result == (model.stored == 0 ? -1 : 0));
      if (model.stored == 0) {
        OXA_FUZZ_CHECK(pieces.got.empty());
        continue;
      }
      const uint32_t q = model.stored, r = model.read, w = model.write;
      if (q + r >= buffer_size) {
        // For compatibility the first piece is size - q long, cut at the end of the buffer.
        const uint32_t first =
            buffer_size - q < buffer_size - r ? buffer_size - q : buffer_size - r;
        OXA_FUZZ_CHECK(pieces.got.size() == 2);
        OXA_FUZZ_CHECK(pieces.got[0] == model.Range(r, first));
        OXA_FUZZ_CHECK(pieces.got[1] == model.Range(0, w));
        // Whenever q <= r, nothing is lost: the pieces are the stored bytes in order.
        if (q <= r) OXA_FUZZ_CHECK(pieces.got[0].size() + pieces.got[1].size() == q);
      } else {
        OXA_FUZZ_CHECK(pieces.got.size() == 1 && pieces.got[0] == model.Range(r, q));
      }
      model.read = w;
      model.stored = 0;
    }
    unsigned int stored = 0;
    OXA_FUZZ_CHECK(OXA_CycleBufferValue(buffer, &stored) == 0 && stored == model.stored);
  }
  OXA_FUZZ_CHECK(OXA_CycleBufferDestroy(buffer) == 0);
  return 0;
}
