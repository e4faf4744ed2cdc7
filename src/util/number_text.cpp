// Integers to text and text to integers, with the library's own base and overflow rules.
#include "util/number_text.h"

#include <ctype.h>
#include <limits.h>
#include <stdint.h>

#include <type_traits>

#include "oxa_string.h"

namespace {

constexpr char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";

// Digit value of a byte, or 36 for anything that is no digit in any base.
inline unsigned int DigitValue(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  return 36;
}

// The steps both parsers share before the digits: white space, sign, base detection.
struct Prefix {
  const char* digits;  // first byte after sign and "0x"
  int base;            // resolved base
  bool negative;
};

Prefix ReadPrefix(const char* text, int base) {
  const char* p = text;
  while (isspace(static_cast<unsigned char>(*p)))
    ++p;
  bool negative = false;
  if (*p == '-' || *p == '+') negative = *p++ == '-';
  if (base == 0 || base == 16) {
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
      base = 16;
      p += 2;
    } else if (base == 0) {
      base = p[0] == '0' ? 8 : 10;
    }
  }
  return {p, base, negative};
}

// Shared digit loop. Value is the result type; kLenient accepts a digit equal to the base.
// Returns false on overflow; *stop is the byte after the last consumed digit (or null when
// there was no digit).
template <typename Value, bool kLenient>
bool ReadDigits(const Prefix& prefix, Value* value, const char** stop) {
  const auto base = static_cast<unsigned int>(prefix.base);
  Value acc = 0;
  bool overflow = false;
  const char* p = prefix.digits;
  for (;; ++p) {
    const unsigned int digit = DigitValue(static_cast<unsigned char>(*p));
    if (kLenient ? digit > base || digit == 36 : digit >= base) break;
    if (overflow) continue;  // keep consuming digits, stop accumulating
    const Value d = static_cast<Value>(digit);
    overflow = __builtin_mul_overflow(acc, static_cast<Value>(base), &acc) ||
               (prefix.negative ? __builtin_sub_overflow(acc, d, &acc)
                                : __builtin_add_overflow(acc, d, &acc));
  }
  *stop = p == prefix.digits ? nullptr : p;
  *value = acc;
  return !overflow;
}

void StoreEnd(char** end, const char* position) {
  if (end != nullptr) *end = const_cast<char*>(position);
}

// The steps both parsers share. Value is the result type; kLenient accepts a digit equal to
// the base. Stores the end position and returns the value, or the overflow result given.
template <typename Value, bool kLenient>
Value Parse(const char* text, char** end, int base, Value positive_overflow,
            Value negative_overflow) {
  if (text == nullptr) {
    StoreEnd(end, text);
    return 0;
  }
  const Prefix prefix = ReadPrefix(text, base);
  if (prefix.base < 2 || prefix.base > 16) {
    StoreEnd(end, text);
    return 0;
  }
  Value value = 0;
  const char* stop = nullptr;
  const bool in_range = ReadDigits<Value, kLenient>(prefix, &value, &stop);
  StoreEnd(end, stop == nullptr ? text : stop);
  if (in_range) return value;
  return prefix.negative ? negative_overflow : positive_overflow;
}

}  // namespace

namespace oxa::internal {

template <typename Int>
char* IntegerToText(char* buffer, Int value, unsigned int base) {
  using Unsigned = std::make_unsigned_t<Int>;
  if (buffer == nullptr || base < 2 || base > 36) return nullptr;
  char reversed[sizeof(Int) * CHAR_BIT + 1];
  int count = 0;
  char* out = buffer;
  if (value < 0 && base != 10) {
    // Signed division gives a negative first remainder and a quotient that is not above 0:
    // one character, '0' plus that remainder. Kept as the defined result for such calls.
    *out++ = static_cast<char>('0' + static_cast<int>(value % static_cast<Int>(base)));
  } else {
    // Base 10 negatives work on the magnitude, which also covers the most negative value.
    Unsigned magnitude =
        value < 0 ? Unsigned(0) - static_cast<Unsigned>(value) : static_cast<Unsigned>(value);
    do {
      reversed[count++] = kDigits[magnitude % base];
      magnitude /= base;
    } while (magnitude > 0);
    if (value < 0) *out++ = '-';
    while (count > 0)
      *out++ = reversed[--count];
  }
  *out = '\0';
  return buffer;
}

template char* IntegerToText<int>(char*, int, unsigned int);
template char* IntegerToText<long>(char*, long, unsigned int);

}  // namespace oxa::internal

// ---- C entry points ---------------------------------------------------------

extern "C" char* OXA_Itoa(char* buffer, int value, unsigned int base) {
  return oxa::internal::IntegerToText(buffer, value, base);
}

extern "C" char* OXA_Ltoa(char* buffer, long value, unsigned int base) {
  return oxa::internal::IntegerToText(buffer, value, base);
}

extern "C" int OXA_StrToi32(const char* text, char** end, int base) {
  return Parse<int32_t, false>(text, end, base, INT32_MAX, INT32_MIN);
}

extern "C" int OXA_Atoi32(const char* text) { return OXA_StrToi32(text, nullptr, 10); }

extern "C" oxa_int64 OXA_StrToi64(const char* text, char** end, int base) {
  return Parse<int64_t, true>(text, end, base, -1, -1);  // -1 either way, for compatibility
}

extern "C" oxa_int64 OXA_Atoi64(const char* text) { return OXA_StrToi64(text, nullptr, 10); }
