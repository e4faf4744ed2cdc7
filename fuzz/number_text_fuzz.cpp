// The number parsers on arbitrary text, checked against the C library where the rules agree,
// and integer-to-text round trips.
#include <errno.h>
#include <limits.h>
#include <stdlib.h>

#include <string>

#include "oxa_string.h"

#include "fuzz_input.h"

namespace {

bool OnlyDecimalDigits(const char* from, const char* to) {
  for (const char* p = from; p < to; ++p) {
    if (*p < '0' || *p > '9') return false;
  }
  return true;
}

void CheckParsers(const std::string& text, int base) {
  const char* start = text.c_str();
  const char* limit = start + text.size();
  char* end32 = nullptr;
  char* end64 = nullptr;
  const int value32 = OXA_StrToi32(start, &end32, base);
  const long long value64 = OXA_StrToi64(start, &end64, base);
  OXA_FUZZ_CHECK(end32 >= start && end32 <= limit);
  OXA_FUZZ_CHECK(end64 >= start && end64 <= limit);
  if (end32 == start) OXA_FUZZ_CHECK(value32 == 0);
  if (end64 == start) OXA_FUZZ_CHECK(value64 == 0);
  if (base != 10) return;

  // Base 10 has no prefix rules: strtoll must agree, clamped to 32 bits for the 32-bit parser.
  char* end_ref = nullptr;
  errno = 0;
  const long long ref = strtoll(start, &end_ref, 10);
  const bool ref_overflow = errno == ERANGE;
  OXA_FUZZ_CHECK(end32 == end_ref);
  const long long clamped = ref < INT_MIN ? INT_MIN : ref > INT_MAX ? INT_MAX : ref;
  OXA_FUZZ_CHECK(value32 == clamped);
  // The 64-bit parser also takes a digit equal to the base ('a'), so compare only when it
  // stopped where strtoll did.
  if (end64 == end_ref) OXA_FUZZ_CHECK(value64 == (ref_overflow ? -1 : ref));
  if (end64 != end_ref) OXA_FUZZ_CHECK(end64 > end_ref && !OnlyDecimalDigits(end_ref, end64));
}

void CheckItoaRoundTrip(int value, unsigned int base) {
  char text[34];
  char* result = OXA_Itoa(text, value, base);
  if (base < 2 || base > 36) {
    OXA_FUZZ_CHECK(result == nullptr);
    return;
  }
  OXA_FUZZ_CHECK(result == text);
  if (value < 0 && base != 10) return;  // one character by definition
  if (base > 16) return;                // beyond what the parsers take
  char* end = nullptr;
  OXA_FUZZ_CHECK(OXA_StrToi32(text, &end, static_cast<int>(base)) == value);
  OXA_FUZZ_CHECK(*end == '\0');
  OXA_FUZZ_CHECK(OXA_StrToi64(text, nullptr, static_cast<int>(base)) == value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oxa_fuzz::Input input(data, size);
  const int base = static_cast<int>(input.Byte() % 40) - 2;  // -2 .. 37
  const int value = input.Value<int>();
  CheckItoaRoundTrip(value, static_cast<unsigned int>(base));
  CheckParsers(input.Rest().c_str(), base);  // up to the first zero byte, like a C caller
  return 0;
}
