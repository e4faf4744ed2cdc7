// The pools' pointer index: open addressing with linear probing, at most half full.
//
// It replaces the ordered maps a pool could use to find a lent pointer: a lookup hashes the key
// and compares keys only, so a foreign or interior pointer is recognised without reading memory
// the pool does not own. Ordered walks (leak reports, clean-up) sort a snapshot instead.
#include "memory/pointer_map.h"

#include <stdint.h>
#include <stdlib.h>

#include <algorithm>

namespace {

constexpr size_t kMinCapacity = 16;

}  // namespace

namespace oxa::internal {

PointerMap::~PointerMap() { free(slots_); }

size_t PointerMap::Home(const void* key) const {
  // Fibonacci hashing; folding the high half in spreads keys that differ only in high bits.
  const uint64_t h = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key)) * 0x9E3779B97F4A7C15u;
  return static_cast<size_t>(h ^ (h >> 32)) & (capacity_ - 1);
}

void* PointerMap::Find(const void* key) const {
  if (capacity_ == 0) return nullptr;
  for (size_t i = Home(key);; i = (i + 1) & (capacity_ - 1)) {
    if (slots_[i].key == key) return slots_[i].value;
    if (slots_[i].key == nullptr) return nullptr;
  }
}

bool PointerMap::Reserve(size_t extra) {
  const size_t need = count_ + extra;
  if (need * 2 <= capacity_) return true;
  size_t capacity = std::max(kMinCapacity, capacity_);
  while (need * 2 > capacity)
    capacity *= 2;
  return Rehash(capacity);
}

void PointerMap::Insert(const void* key, void* value) {
  size_t i = Home(key);
  while (slots_[i].key != nullptr && slots_[i].key != key)
    i = (i + 1) & (capacity_ - 1);
  if (slots_[i].key == nullptr) ++count_;
  slots_[i].key = key;
  slots_[i].value = value;
}

void* PointerMap::Erase(const void* key) {
  if (capacity_ == 0) return nullptr;
  const size_t mask = capacity_ - 1;
  size_t hole = Home(key);
  for (; slots_[hole].key != key; hole = (hole + 1) & mask) {
    if (slots_[hole].key == nullptr) return nullptr;
  }
  void* value = slots_[hole].value;
  // Backward shift: move later entries of the probe run into the hole whenever the hole lies
  // between their home slot and where they sit, so every key stays reachable from its home.
  for (size_t next = (hole + 1) & mask; slots_[next].key != nullptr; next = (next + 1) & mask) {
    const size_t home = Home(slots_[next].key);
    if (((next - home) & mask) >= ((next - hole) & mask)) {
      slots_[hole] = slots_[next];
      hole = next;
    }
  }
  slots_[hole].key = nullptr;
  --count_;
  // The table keeps its size, like the pools keep their memory: a working set that drains and
  // fills again (the usual pattern) would otherwise rehash all the way down and up each time.
  return value;
}

void PointerMap::Clear() {
  free(slots_);
  slots_ = nullptr;
  capacity_ = 0;
  count_ = 0;
}

bool PointerMap::Rehash(size_t capacity) {
  auto* slots = static_cast<Entry*>(calloc(capacity, sizeof(Entry)));
  if (slots == nullptr) return false;
  Entry* old_slots = slots_;
  const size_t old_capacity = capacity_;
  slots_ = slots;
  capacity_ = capacity;
  count_ = 0;
  for (size_t i = 0; i < old_capacity; ++i) {
    if (old_slots[i].key != nullptr) Insert(old_slots[i].key, old_slots[i].value);
  }
  free(old_slots);
  return true;
}

std::vector<PointerMap::Entry> SortedEntries(const PointerMap& map) {
  std::vector<PointerMap::Entry> entries;
  entries.reserve(map.Count());
  map.ForEach([&](const PointerMap::Entry& entry) { entries.push_back(entry); });
  std::sort(entries.begin(), entries.end(),
            [](const PointerMap::Entry& a, const PointerMap::Entry& b) {
              return reinterpret_cast<uintptr_t>(a.key) < reinterpret_cast<uintptr_t>(b.key);
            });
  return entries;
}

}  // namespace oxa::internal
