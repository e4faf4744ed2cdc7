// A node pointer and a modification count packed into one 64-bit word, so that one
// compare-and-swap checks both: a word that was changed and changed back (the same node
// unlinked, recycled and linked again) still fails the swap because its count moved on.
//
// Nodes are aligned to 64 bytes and user-space addresses stay below 2^47 on 64-bit Linux, so
// a pointer needs 41 bits there and the count gets the other 23 (8 million changes of one word
// before it repeats); on 32-bit targets the pointer needs 26 bits and the count gets 38.
#ifndef OXA_SRC_DISPATCH_TAGGED_PTR_H_
#define OXA_SRC_DISPATCH_TAGGED_PTR_H_

#include <stdint.h>

namespace oxa::internal {

template <class Node>
class Tagged {
 public:
  static constexpr unsigned kAlignBits = 6;
  static constexpr unsigned kAddressBits = sizeof(void*) == 8 ? 47 : 32;
  static constexpr unsigned kPointerBits = kAddressBits - kAlignBits;
  static constexpr uint64_t kPointerMask = (uint64_t{1} << kPointerBits) - 1;

  static_assert(alignof(Node) >= (1u << kAlignBits), "nodes must be 64-byte aligned");

  // True when node can be packed (aligned and below the address limit).
  static bool Fits(const Node* node) {
    const auto address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(node));
    return (address >> kAddressBits) == 0 && (address & ((1u << kAlignBits) - 1)) == 0;
  }
  static uint64_t Pack(const Node* node, uint64_t count) {
    return (static_cast<uint64_t>(reinterpret_cast<uintptr_t>(node)) >> kAlignBits) |
           (count << kPointerBits);
  }
  static Node* Pointer(uint64_t word) {
    return reinterpret_cast<Node*>(static_cast<uintptr_t>((word & kPointerMask) << kAlignBits));
  }
  static uint64_t Count(uint64_t word) { return word >> kPointerBits; }
  // The same word pointing to node, with the count advanced.
  static uint64_t Next(uint64_t word, const Node* node) { return Pack(node, Count(word) + 1); }
};

}  // namespace oxa::internal

#endif  // OXA_SRC_DISPATCH_TAGGED_PTR_H_
