// Random enter/find/remove sequences on small tables, with string or integer keys drawn from
// small sets so that keys collide, checked against a map. Removal may legitimately cut the
// probe path of other keys, so the exact model holds until the first removal; after that the
// properties that survive path cuts are checked.
#include <stdint.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "oxa_hash.h"

#include "fuzz_input.h"

namespace {

using StringSlot = OXA_SIMPLE_HASH_SLOT;
using IntSlot = OXA_SIMPLE_INT_HASH_SLOT;

// Keys live as long as the process: the table keeps pointers only.
const std::vector<std::string>& StringKeys() {
  static const std::vector<std::string> keys = [] {
    std::vector<std::string> made;
    for (int i = 0; i < 48; ++i)
      made.push_back(std::string(1 + i % 5, static_cast<char>('a' + i / 5)) + std::to_string(i));
    made.push_back("");
    return made;
  }();
  return keys;
}

template <bool kStrings>
struct Ops {
  using Slot = typename std::conditional<kStrings, StringSlot, IntSlot>::type;
  static const char* StringKey(unsigned int index) {
    return StringKeys()[index % StringKeys().size()].c_str();
  }
  static int Enter(OXA_SIMPLE_HASH t, unsigned int k, void* d) {
    if (kStrings) return OXA_SimpleHashEnter({StringKey(k), d}, t);
    return OXA_SimpleIntHashEnter({k, d}, t);
  }
  static int Find(OXA_SIMPLE_HASH t, unsigned int k, void** d) {
    return kStrings ? OXA_SimpleHashFind(StringKey(k), d, t) : OXA_SimpleIntHashFind(k, d, t);
  }
  static int Remove(OXA_SIMPLE_HASH t, unsigned int k) {
    return kStrings ? OXA_SimpleHashRemove(StringKey(k), t) : OXA_SimpleIntHashRemove(k, t);
  }
  static bool Occupied(const Slot& s) {
    if constexpr (kStrings) {
      return s.used != 0;
    } else {
      return s.marker == ~s.key;
    }
  }
  static bool SameKey(const Slot& s, unsigned int k) {
    if constexpr (kStrings) {
      return strcmp(s.key, StringKey(k)) == 0;
    } else {
      return s.key == k;
    }
  }
  static unsigned int KeyIndex(unsigned int raw) {
    return kStrings ? raw % StringKeys().size() : raw;
  }
};

template <bool kStrings>
void Run(oxa_fuzz::Input& input, unsigned int capacity) {
  using O = Ops<kStrings>;
  using Slot = typename O::Slot;
  OXA_SIMPLE_HASH table = nullptr;
  OXA_FUZZ_CHECK((kStrings ? OXA_SimpleHashCreate(capacity, &table)
                           : OXA_SimpleIntHashCreate(capacity, &table)) == 0);
  const unsigned int size = table->size;
  Slot* slots = static_cast<Slot*>(table->slots);
  auto snapshot = [&] {
    return std::string(reinterpret_cast<const char*>(slots), (size + 1) * sizeof(Slot));
  };
  auto occupied_count = [&] {
    unsigned int count = 0;
    for (unsigned int i = 1; i <= size; ++i)
      count += O::Occupied(slots[i]) ? 1 : 0;
    return count;
  };
  auto holds = [&](unsigned int k, void* d) {
    for (unsigned int i = 1; i <= size; ++i) {
      if (O::Occupied(slots[i]) && O::SameKey(slots[i], k) && slots[i].data == d) return true;
    }
    return false;
  };

  std::map<unsigned int, void*> model;
  bool removed = false;
  while (!input.empty()) {
    const uint8_t op = input.Byte();
    const unsigned int key = O::KeyIndex(input.Byte() % 64);
    void* data = reinterpret_cast<void*>(static_cast<uintptr_t>(1 + input.Byte() % 3));
    const unsigned int filled = table->filled;
    const std::string before = snapshot();
    void* found = reinterpret_cast<void*>(1);
    switch (op % 3) {
      case 0: {
        const int result = O::Enter(table, key, data);
        if (!removed) {
          const auto it = model.find(key);
          const int expected =
              it != model.end() ? (it->second == data ? 0 : -1) : (model.size() == size ? -1 : 0);
          OXA_FUZZ_CHECK(result == expected);
        }
        if (result == 0) {
          model[key] = data;
          OXA_FUZZ_CHECK(O::Find(table, key, &found) == 0 && found == data);
        } else {
          OXA_FUZZ_CHECK(before == snapshot());
          OXA_FUZZ_CHECK(filled == size || (O::Find(table, key, &found) == 0 && found != data));
        }
        break;
      }
      case 1: {
        const int result = O::Find(table, key, &found);
        if (result == 0) OXA_FUZZ_CHECK(holds(key, found));
        if (result != 0) OXA_FUZZ_CHECK(found == nullptr);
        if (!removed) {
          const auto it = model.find(key);
          OXA_FUZZ_CHECK(result == (it != model.end() ? 0 : -1));
          if (result == 0) OXA_FUZZ_CHECK(found == it->second);
        }
        break;
      }
      default: {
        const int result = O::Remove(table, key);
        if (result == 0) {
          OXA_FUZZ_CHECK(table->filled == filled - 1);
          removed = true;
        } else {
          OXA_FUZZ_CHECK(before == snapshot());
          if (!removed) OXA_FUZZ_CHECK(model.count(key) == 0);
        }
        model.erase(key);
        break;
      }
    }
    OXA_FUZZ_CHECK(table->filled == occupied_count());
    if (!removed) OXA_FUZZ_CHECK(table->filled == model.size());
  }
  OXA_FUZZ_CHECK((kStrings ? OXA_SimpleHashDestroy(table) : OXA_SimpleIntHashDestroy(table)) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oxa_fuzz::Input input(data, size);
  const uint8_t setup = input.Byte();
  const unsigned int capacity = setup % 40;
  if (setup & 0x80) {
    Run<true>(input, capacity);
  } else {
    Run<false>(input, capacity);
  }
  return 0;
}
