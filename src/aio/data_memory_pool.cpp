#include "aio/data_memory_pool.h"

#include <functional>

namespace oxa::internal {
namespace {

constexpr int kClassBytes[CDataMemoryPool::kClassCount] = {
    32, 64, 128, 256, 512, 1500, 2048, 3072, 4096, 5120, 6144, 7168, 8192, 16384};
static_assert(kClassBytes[CDataMemoryPool::kClassCount - 1] == CDataMemoryPool::kLargestClass,
              "the largest class holds a whole chunk");

void*& NextOf(void* chunk) { return *static_cast<void**>(chunk); }

// Merges two address-ordered lists of free chunks.
void* MergeByAddress(void* a, void* b) {
  const std::less<void*> before;
  void* head = nullptr;
  void** tail = &head;
  while (a != nullptr && b != nullptr) {
    void*& smaller = before(b, a) ? b : a;
    *tail = smaller;
    tail = &NextOf(smaller);
    smaller = NextOf(smaller);
  }
  *tail = a != nullptr ? a : b;
  return head;
}

}  // namespace

// Bottom-up merge sort of the singly linked free list: no recursion, no allocation. bins[i]
// holds a sorted run of 2^i chunks (the last bin takes whatever is larger).
void TrimmablePool::SortFreeList() {
  constexpr int kBins = 64;
  void* bins[kBins] = {};
  void* rest = this->first;
  while (rest != nullptr) {
    void* run = rest;
    rest = NextOf(rest);
    NextOf(run) = nullptr;
    int i = 0;
    for (; i < kBins - 1 && bins[i] != nullptr; ++i) {
      run = MergeByAddress(bins[i], run);
      bins[i] = nullptr;
    }
    bins[i] = bins[i] == nullptr ? run : MergeByAddress(bins[i], run);
  }
  void* sorted = nullptr;
  for (void* bin : bins) {
    if (bin != nullptr) sorted = MergeByAddress(bin, sorted);
  }
  this->first = sorted;
}

void TrimmablePool::Trim() {
  SortFreeList();
  release_memory();
}

CDataMemoryPool::CDataMemoryPool()
    : pools_{TrimmablePool(kClassBytes[0]),  TrimmablePool(kClassBytes[1]),
             TrimmablePool(kClassBytes[2]),  TrimmablePool(kClassBytes[3]),
             TrimmablePool(kClassBytes[4]),  TrimmablePool(kClassBytes[5]),
             TrimmablePool(kClassBytes[6]),  TrimmablePool(kClassBytes[7]),
             TrimmablePool(kClassBytes[8]),  TrimmablePool(kClassBytes[9]),
             TrimmablePool(kClassBytes[10]), TrimmablePool(kClassBytes[11]),
             TrimmablePool(kClassBytes[12]), TrimmablePool(kClassBytes[13])} {}

int CDataMemoryPool::ClassIndex(int length) {
  if (length < 1 || length > kLargestClass) return -1;
  int i = 0;
  while (kClassBytes[i] < length)
    ++i;
  return i;
}

int CDataMemoryPool::ClassBytes(int length) {
  const int i = ClassIndex(length);
  return i < 0 ? 0 : kClassBytes[i];
}

void* CDataMemoryPool::Take(int length) {
  const int i = ClassIndex(length);
  return i < 0 ? nullptr : pools_[i].malloc();
}

void CDataMemoryPool::Give(void* block, int length) {
  const int i = ClassIndex(length);
  if (i >= 0 && block != nullptr) pools_[i].free(block);
}

void CDataMemoryPool::Trim() {
  for (TrimmablePool& pool : pools_)
    pool.Trim();
}

}  // namespace oxa::internal
