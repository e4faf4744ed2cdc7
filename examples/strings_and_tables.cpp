// Strings and numbers, a hash table and a cycle buffer draining to a callback.
#include <cstdio>
#include <string>

#include "oxa_hash.h"
#include "oxa_string.h"

namespace {

void ShowNumbers() {
  char text[40];
  std::printf("OXA_Itoa(255, 16) = %s, OXA_Itoa(-42, 10) = %s, OXA_Itoa(5, 2) = %s\n",
              OXA_Itoa(text, 255, 16), OXA_Itoa(text + 10, -42, 10), OXA_Itoa(text + 20, 5, 2));
  char* end = nullptr;
  const char* hex = "  -0x1A rest";
  const int value = OXA_StrToi32(hex, &end, 0);
  std::printf("OXA_StrToi32(\"%s\", base 0) = %d, stopped at \"%s\"\n", hex, value, end);
  std::printf("OXA_StrToi32(\"99999999999\") = %d (saturated), OXA_StrToi64 of 20 nines = %lld\n",
              OXA_Atoi32("99999999999"), OXA_Atoi64("99999999999999999999"));
  const std::string euc = OXA_UTF82A("\xe4\xbd\xa0\xe5\xa5\xbd");  // "ni hao" in UTF-8
  std::printf("UTF-8 -> EUC-CN: %zu bytes in, %zu bytes out, back again: %s\n", size_t{6},
              euc.size(),
              OXA_A2UTF8(euc.c_str()) == "\xe4\xbd\xa0\xe5\xa5\xbd" ? "same" : "DIFFERENT");
}

void ShowHashTable() {
  OXA_SIMPLE_HASH table = nullptr;
  if (OXA_SimpleHashCreate(10, &table) != 0) return;
  const char* names[] = {"alpha", "beta", "gamma", "delta"};
  for (long i = 0; i < 4; ++i)
    OXA_SimpleHashEnter({names[i], reinterpret_cast<void*>(i + 1)}, table);
  std::printf("hash table: size %u for capacity 10, %u entries\n", table->size, table->filled);
  std::printf("  enter \"beta\" again with other data: %d (the old data stays)\n",
              OXA_SimpleHashEnter({"beta", reinterpret_cast<void*>(99)}, table));
  void* data = nullptr;
  OXA_SimpleHashFind("gamma", &data, table);
  std::printf("  find \"gamma\": %ld", reinterpret_cast<long>(data));
  std::printf("; find \"omega\": %d\n", OXA_SimpleHashFind("omega", &data, table));
  const int removed = OXA_SimpleHashRemove("alpha", table);
  std::printf("  remove \"alpha\": %d, now %u entries\n", removed, table->filled);
  OXA_SimpleHashDestroy(table);
}

void PrintPiece(const char* bytes, unsigned int length, void* user) {
  std::printf("  %s reader got %u bytes: \"%.*s\"\n", static_cast<const char*>(user), length,
              static_cast<int>(length), bytes);
}

void ShowCycleBuffer() {
  OXA_CYCLE_BUFFER buffer = nullptr;
  if (OXA_CycleBufferInit(&buffer, 16, &PrintPiece, const_cast<char*>("log")) != 0) return;
  std::printf("cycle buffer of 16 bytes:\n");
  OXA_CycleBufferWrite(buffer, "hello, ", 7);
  OXA_CycleBufferWrite(buffer, "world", 5);
  std::printf("  a 5-byte write into 4 free bytes: %d (whole or nothing)\n",
              OXA_CycleBufferWrite(buffer, "12345", 5));
  OXA_CycleBufferRead(buffer);
  OXA_CycleBufferWrite(buffer, "wrapped!", 8);  // 4 bytes to the end, 4 at the start
  OXA_CycleBufferRead(buffer);
  std::printf("  reading an empty buffer: %d\n", OXA_CycleBufferRead(buffer));
  OXA_CycleBufferDestroy(buffer);
}

}  // namespace

int main() {
  ShowNumbers();
  ShowHashTable();
  ShowCycleBuffer();
  return 0;
}
