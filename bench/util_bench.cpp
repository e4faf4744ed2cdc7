// The string hash table against glibc's hsearch_r (the same double-hashing family, the same
// table size for the same capacity), and the number parsers against strtol and strtoll.
// Hash workloads: 100,000 random identifiers at load 0.5 and 0.9, in shuffled order; one iteration
// handles every key once, so items/s is operations per second.
#include <benchmark/benchmark.h>

#include <search.h>
#include <stdlib.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "oxa_hash.h"
#include "oxa_string.h"

namespace {

constexpr int kKeys = 100000;

struct KeySet {
  std::vector<std::string> present;
  std::vector<std::string> absent;
  std::vector<const char*> enter_order, find_order, absent_order;

  KeySet() {
    std::mt19937_64 random(20261125);
    // Random identifiers of 8 to 24 letters and digits, all distinct.
    const auto make_key = [&random] {
      static const char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
      std::string key(8 + random() % 17, ' ');
      for (char& c : key)
        c = kChars[random() % 62];
      return key;
    };
    std::set<std::string> seen;
    while (present.size() < kKeys) {
      std::string key = make_key();
      if (seen.insert(key).second) present.push_back(key);
    }
    while (absent.size() < kKeys) {
      std::string key = make_key();
      if (seen.insert(key).second) absent.push_back(key);
    }
    for (const auto& key : present)
      enter_order.push_back(key.c_str());
    for (const auto& key : absent)
      absent_order.push_back(key.c_str());
    find_order = enter_order;
    std::shuffle(enter_order.begin(), enter_order.end(), random);
    std::shuffle(find_order.begin(), find_order.end(), random);
  }
};

const KeySet& Keys() {
  static const KeySet keys;
  return keys;
}

// Capacity for the load given in percent by the benchmark argument.
unsigned int Capacity(const benchmark::State& state) {
  return static_cast<unsigned int>(kKeys * 100 / state.range(0));
}

// ---- liboxa -------------------------------------------------------------------

OXA_SIMPLE_HASH FilledOxaTable(unsigned int capacity) {
  OXA_SIMPLE_HASH table = nullptr;
  OXA_SimpleHashCreate(capacity, &table);
  for (const char* key : Keys().enter_order)
    OXA_SimpleHashEnter({key, const_cast<char*>(key)}, table);
  return table;
}

void BM_OxaHashEnter(benchmark::State& state) {
  for (auto _ : state) {
    OXA_SIMPLE_HASH table = FilledOxaTable(Capacity(state));
    benchmark::DoNotOptimize(table->filled);
    OXA_SimpleHashDestroy(table);
  }
  state.SetItemsProcessed(state.iterations() * kKeys);
}

void OxaFind(benchmark::State& state, const std::vector<const char*>& order) {
  OXA_SIMPLE_HASH table = FilledOxaTable(Capacity(state));
  for (auto _ : state) {
    for (const char* key : order) {
      void* data;
      benchmark::DoNotOptimize(OXA_SimpleHashFind(key, &data, table));
    }
  }
  OXA_SimpleHashDestroy(table);
  state.SetItemsProcessed(state.iterations() * kKeys);
}
void BM_OxaHashFindPresent(benchmark::State& state) { OxaFind(state, Keys().find_order); }
void BM_OxaHashFindAbsent(benchmark::State& state) { OxaFind(state, Keys().absent_order); }

// ---- glibc hsearch_r ----------------------------------------------------------

struct GlibcTable {
  explicit GlibcTable(unsigned int capacity) { hcreate_r(capacity, &table); }
  ~GlibcTable() { hdestroy_r(&table); }
  GlibcTable(const GlibcTable&) = delete;
  GlibcTable& operator=(const GlibcTable&) = delete;
  void Fill() {
    for (const char* key : Keys().enter_order) {
      ENTRY item{const_cast<char*>(key), const_cast<char*>(key)};
      ENTRY* found;
      hsearch_r(item, ENTER, &found, &table);
    }
  }
  hsearch_data table{};
};

void BM_GlibcHashEnter(benchmark::State& state) {
  for (auto _ : state) {
    GlibcTable glibc(Capacity(state));
    glibc.Fill();
    benchmark::DoNotOptimize(glibc.table.filled);
  }
  state.SetItemsProcessed(state.iterations() * kKeys);
}

void GlibcFind(benchmark::State& state, const std::vector<const char*>& order) {
  GlibcTable glibc(Capacity(state));
  glibc.Fill();
  for (auto _ : state) {
    for (const char* key : order) {
      ENTRY item{const_cast<char*>(key), nullptr};
      ENTRY* found;
      benchmark::DoNotOptimize(hsearch_r(item, FIND, &found, &glibc.table));
    }
  }
  state.SetItemsProcessed(state.iterations() * kKeys);
}
void BM_GlibcHashFindPresent(benchmark::State& state) { GlibcFind(state, Keys().find_order); }
void BM_GlibcHashFindAbsent(benchmark::State& state) { GlibcFind(state, Keys().absent_order); }

BENCHMARK(BM_OxaHashEnter)->Arg(50)->Arg(90);
BENCHMARK(BM_GlibcHashEnter)->Arg(50)->Arg(90);
BENCHMARK(BM_OxaHashFindPresent)->Arg(50)->Arg(90);
BENCHMARK(BM_GlibcHashFindPresent)->Arg(50)->Arg(90);
BENCHMARK(BM_OxaHashFindAbsent)->Arg(50)->Arg(90);
BENCHMARK(BM_GlibcHashFindAbsent)->Arg(50)->Arg(90);

// ---- number parsing -----------------------------------------------------------

// 4,096 decimal texts: 32-bit values of every magnitude, signs, leading blanks.
const std::vector<std::string>& NumberTexts(bool wide) {
  static const auto make = [](bool sixty_four) {
    std::mt19937_64 random(7);
    std::vector<std::string> texts;
    for (int i = 0; i < 4096; ++i) {
      const long long value = sixty_four ? static_cast<long long>(random())
                                         : static_cast<int>(random() >> (random() % 32));
      texts.push_back((i % 4 == 0 ? "  " : "") + std::to_string(value));
    }
    return texts;
  };
  static const std::vector<std::string> narrow = make(false), wide_texts = make(true);
  return wide ? wide_texts : narrow;
}

template <typename Parse>
void ParseAll(benchmark::State& state, bool wide, Parse parse) {
  const auto& texts = NumberTexts(wide);
  for (auto _ : state) {
    for (const auto& text : texts)
      benchmark::DoNotOptimize(parse(text.c_str()));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(texts.size()));
}

void BM_OxaStrToi32(benchmark::State& state) {
  ParseAll(state, false, [](const char* t) { return OXA_StrToi32(t, nullptr, 10); });
}
void BM_Strtol(benchmark::State& state) {
  ParseAll(state, false, [](const char* t) { return strtol(t, nullptr, 10); });
}
void BM_OxaStrToi64(benchmark::State& state) {
  ParseAll(state, true, [](const char* t) { return OXA_StrToi64(t, nullptr, 10); });
}
void BM_Strtoll(benchmark::State& state) {
  ParseAll(state, true, [](const char* t) { return strtoll(t, nullptr, 10); });
}
BENCHMARK(BM_OxaStrToi32);
BENCHMARK(BM_Strtol);
BENCHMARK(BM_OxaStrToi64);
BENCHMARK(BM_Strtoll);

}  // namespace
