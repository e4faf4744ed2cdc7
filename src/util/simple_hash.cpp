// Fixed-capacity hash tables with open addressing and double hashing: one algorithm over two
// slot layouts (string keys, unsigned integer keys), selected by a small traits class.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "oxa_hash.h"

OXA_SIMPLE_HASH_HEADER OXA_HSEARCH_DATA = {nullptr, 0, 0};
OXA_SIMPLE_HASH_HEADER OXA_HSEARCH_INTDATA = {nullptr, 0, 0};

namespace {

using StringSlot = OXA_SIMPLE_HASH_SLOT;
using IntSlot = OXA_SIMPLE_INT_HASH_SLOT;

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_SIMPLE_HASH_HEADER) == 12, "hash table header is ABI");
static_assert(sizeof(StringSlot) == 12 && sizeof(IntSlot) == 12, "hash slots are three words");
#endif

uint32_t IndexOf(uint32_t hash, uint32_t size) {
  const uint32_t index = hash % size;
  return index == 0 ? 1 : index;
}

// Beside the slots, each table keeps one tag byte per slot: 0 while the slot is free, else
// 0x80 and seven bits of a mix of the key's hash. Walks read the compact tag array and touch a
// slot (and its key) only when the tag matches, which saves most cache misses of a probe. The
// tags live after the slot array, so the documented header and slots are unchanged.
uint8_t TagOf(uint32_t hash) { return static_cast<uint8_t>(0x80u | ((hash * 0x9E3779B1u) >> 25)); }

struct StringKeys {
  using Key = const char*;
  using Slot = StringSlot;
  static uint32_t Hash(Key key) {
    // The length, then every byte from the last to the first shifted in four bits at a time.
    const size_t length = strlen(key);
    uint32_t hash = static_cast<uint32_t>(length);
    for (size_t i = length; i > 0; --i) {
      hash = (hash << 4) + static_cast<unsigned char>(key[i - 1]);
    }
    return hash;
  }
  static uint32_t HomeOfSlot(const Slot& slot, uint32_t /*size*/) { return slot.used; }
  static bool Holds(const Slot& slot, uint32_t home, Key key) {
    return slot.used == home && strcmp(slot.key, key) == 0;
  }
  static void Fill(Slot* slot, uint32_t home, Key key, void* data) { *slot = {home, key, data}; }
};

struct IntKeys {
  using Key = uint32_t;
  using Slot = IntSlot;
  static uint32_t Hash(Key key) { return key; }
  static bool Occupied(const Slot& slot) { return slot.marker == ~slot.key; }
  static uint32_t HomeOfSlot(const Slot& slot, uint32_t size) { return IndexOf(slot.key, size); }
  static bool Holds(const Slot& slot, uint32_t /*home*/, Key key) {
    return Occupied(slot) && slot.key == key;
  }
  static void Fill(Slot* slot, uint32_t /*home*/, Key key, void* data) {
    *slot = {~key, key, data};
  }
};

// The probe walk from a home index: step back by 1 + home mod (size - 2), wrapping within
// 1..size. The unsigned arithmetic is deliberate: for size 1, size - 2 wraps and the walk
// reaches slot 0, which is never used and so always reads as free.
class ProbeWalk {
 public:
  ProbeWalk(uint32_t home, uint32_t size)
      : index_(home), size_(size), step_(1 + home % (size - 2)) {}
  uint32_t index() const { return index_; }
  void Next() { index_ = index_ > step_ ? index_ - step_ : index_ + size_ - step_; }

 private:
  uint32_t index_;
  uint32_t size_;
  uint32_t step_;
};

template <typename Keys>
class Table {
 public:
  using Key = typename Keys::Key;
  using Slot = typename Keys::Slot;

  static uint64_t Bytes(uint64_t size) {
    return sizeof(OXA_SIMPLE_HASH_HEADER) + (size + 1) * (sizeof(Slot) + 1);
  }

  explicit Table(OXA_SIMPLE_HASH header)
      : header_(header),
        slots_(static_cast<Slot*>(header->slots)),
        tags_(reinterpret_cast<uint8_t*>(slots_ + header->size + 1)) {}

  struct Probe {
    uint32_t index;  // the key's slot when found, else where it would go
    bool found;
  };

  // Walks from the home index to the key, a free slot, or back to the start (a full table).
  Probe Search(Key key, uint32_t home, uint8_t tag) const {
    if (tags_[home] == 0) return {home, false};
    if (tags_[home] == tag && Keys::Holds(slots_[home], home, key)) return {home, true};
    for (ProbeWalk walk(home, header_->size);;) {
      walk.Next();
      const uint32_t j = walk.index();
      if (j == home) return {home, false};
      if (tags_[j] == 0) return {j, false};
      if (tags_[j] == tag && Keys::Holds(slots_[j], home, key)) return {j, true};
    }
  }

  int Enter(Key key, void* data) {
    const uint32_t hash = Keys::Hash(key);
    const uint32_t home = IndexOf(hash, header_->size);
    const uint8_t tag = TagOf(hash);
    const Probe probe = Search(key, home, tag);
    if (probe.found) return slots_[probe.index].data == data ? 0 : -1;
    if (header_->filled == header_->size) return -1;
    Keys::Fill(&slots_[probe.index], home, key, data);
    tags_[probe.index] = tag;
    ++header_->filled;
    return 0;
  }

  int Find(Key key, void** data) const {
    const uint32_t hash = Keys::Hash(key);
    const Probe probe = Search(key, IndexOf(hash, header_->size), TagOf(hash));
    *data = probe.found ? slots_[probe.index].data : nullptr;
    return probe.found ? 0 : -1;
  }

  // Keeps the chain of keys with the key's home index unbroken: the last entry of that chain
  // moves into the removed key's slot and its own slot is freed.
  int Remove(Key key) {
    const uint32_t size = header_->size;
    const uint32_t hash = Keys::Hash(key);
    const uint32_t home = IndexOf(hash, size);
    if (tags_[home] == 0) return -1;
    uint32_t last = 0;
    ProbeWalk walk(home, size);
    do {
      if (tags_[walk.index()] == 0) break;
      if (Keys::HomeOfSlot(slots_[walk.index()], size) == home) last = walk.index();
      walk.Next();
    } while (walk.index() != home);
    if (last == 0) return -1;
    const Probe probe = Search(key, home, TagOf(hash));
    if (!probe.found) return -1;
    // Entering the last entry again would land in the first free slot of its walk, which is
    // the slot just vacated (every slot before it on the walk is occupied): move it there
    // directly, so a full table cannot refuse the move and filled falls by exactly one.
    if (probe.index != last) {
      slots_[probe.index] = slots_[last];
      tags_[probe.index] = tags_[last];
    }
    slots_[last] = Slot{};
    tags_[last] = 0;
    --header_->filled;
    return 0;
  }

 private:
  OXA_SIMPLE_HASH header_;
  Slot* slots_;
  uint8_t* tags_;  // one per slot, after the slot array
};

// The first odd number from capacity | 1 upwards that passes the trial division below
// (primes and 1); 64-bit so that the search cannot wrap.
uint64_t TableSize(unsigned int capacity) {
  for (uint64_t m = capacity | 1u;; m += 2) {
    uint64_t d = 3;
    while (d * d < m && m % d != 0)
      d += 2;
    if (m % d != 0) return m;
  }
}

template <typename Keys>
int Create(unsigned int capacity, OXA_SIMPLE_HASH* table) {
  if (table == nullptr) return -1;
  const uint64_t size = TableSize(capacity);
  const uint64_t bytes = Table<Keys>::Bytes(size);
  if (size > UINT32_MAX || bytes > SIZE_MAX) return -1;
  auto* header = static_cast<OXA_SIMPLE_HASH>(calloc(1, static_cast<size_t>(bytes)));
  if (header == nullptr) return -1;
  header->slots = header + 1;
  header->size = static_cast<uint32_t>(size);
  *table = header;
  return 0;
}

int Destroy(OXA_SIMPLE_HASH table) {
  if (table == nullptr) return -1;
  free(table);
  return 0;
}

}  // namespace

// ---- C entry points ---------------------------------------------------------

extern "C" int OXA_SimpleHashCreate(unsigned int capacity, OXA_SIMPLE_HASH* table) {
  return Create<StringKeys>(capacity, table);
}

extern "C" int OXA_SimpleIntHashCreate(unsigned int capacity, OXA_SIMPLE_HASH* table) {
  return Create<IntKeys>(capacity, table);
}

extern "C" int OXA_SimpleHashEnter(OXA_SIMPLE_HASH_ENTRY entry, OXA_SIMPLE_HASH table) {
  if (table == nullptr || entry.key == nullptr) return -1;
  return Table<StringKeys>(table).Enter(entry.key, entry.data);
}

extern "C" int OXA_SimpleIntHashEnter(OXA_SIMPLE_INT_HASH_ENTRY entry, OXA_SIMPLE_HASH table) {
  if (table == nullptr) return -1;
  return Table<IntKeys>(table).Enter(entry.key, entry.data);
}

extern "C" int OXA_SimpleHashFind(const char* key, void** data, OXA_SIMPLE_HASH table) {
  if (data == nullptr) return -1;
  *data = nullptr;
  if (table == nullptr || key == nullptr) return -1;
  return Table<StringKeys>(table).Find(key, data);
}

extern "C" int OXA_SimpleIntHashFind(unsigned int key, void** data, OXA_SIMPLE_HASH table) {
  if (data == nullptr) return -1;
  *data = nullptr;
  if (table == nullptr) return -1;
  return Table<IntKeys>(table).Find(key, data);
}

extern "C" int OXA_SimpleHashRemove(const char* key, OXA_SIMPLE_HASH table) {
  if (table == nullptr || key == nullptr) return -1;
  return Table<StringKeys>(table).Remove(key);
}

extern "C" int OXA_SimpleIntHashRemove(unsigned int key, OXA_SIMPLE_HASH table) {
  if (table == nullptr) return -1;
  return Table<IntKeys>(table).Remove(key);
}

extern "C" int OXA_SimpleHashDestroy(OXA_SIMPLE_HASH table) { return Destroy(table); }

extern "C" int OXA_SimpleIntHashDestroy(OXA_SIMPLE_HASH table) { return Destroy(table); }
