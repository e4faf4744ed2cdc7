// The colon-hexadecimal IPv6 reader and printer.
//
// Reading is field by field: the text is split at every colon, and each field is a 16-bit
// group, an empty field (the "::" gap), or an embedded dotted quad worth two groups. The forms
// it accepts beyond the usual ones are part of the contract: white space anywhere, an embedded
// dotted quad before other groups, and, once eight groups are present, leading or trailing
// colons and even a "::" that stands for nothing.
//
// Most text is plain groups and gaps. That case is read in one pass over the caller's text
// with no copy, no splitting and no library calls; any other character (a dot, a sign, a
// stray letter) sends the text to the general field-by-field reader, so both accept and
// produce exactly the same.
#include <ctype.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "oxa_addr.h"

#include "net/addr_text.h"

namespace oxa {
namespace internal {
namespace {

constexpr int kGroups = 8;
constexpr size_t kWorkBytes = 256;  // text beyond 255 characters is not read
constexpr int kMaxColons = 9;

// Eight groups, most significant byte first.
void StoreGroups(const uint16_t (&groups)[kGroups], unsigned char out[16]) {
  for (size_t i = 0; i < kGroups; ++i) {
    out[2 * i] = static_cast<unsigned char>(groups[i] >> 8);
    out[2 * i + 1] = static_cast<unsigned char>(groups[i] & 0xFF);
  }
}

// Collects the fields of `work` (already free of white space) into groups. `gap` receives the
// group position of an inner "::" gap, or -1. Returns the number of groups, or -1 for bad text.
int ReadFields(char* work, uint16_t (&groups)[kGroups], int* gap) {
  const int colons = string_char_count(work, ':');
  if (colons > kMaxColons) return -1;
  int count = 0;
  *gap = -1;
  char* field = work;
  for (int i = 0; i <= colons; ++i) {
    char* end = strchr(field, ':');
    if (end != nullptr) *end = '\0';
    switch (ipv6_address_field_type_get(field)) {
      case 1:  // gap; an empty first or last field is only the edge of a "::"
        if (i != 0 && i != colons) {
          if (*gap >= 0) return -1;
          *gap = count;
        }
        break;
      case 0:  // group
        if (count >= kGroups) return -1;
        groups[count++] = static_cast<uint16_t>(strtoul(field, nullptr, 16));
        break;
      case 2: {  // embedded dotted quad, two groups
        if (count > kGroups - 2) return -1;
        unsigned int ip = 0;
        ipv4_to_i(field, &ip);
        groups[count++] = static_cast<uint16_t>(ip >> 16);
        groups[count++] = static_cast<uint16_t>(ip & 0xFFFF);
        break;
      }
      default:
        return -1;
    }
    if (end != nullptr) field = end + 1;
  }
  return count;
}

// The longest run of zero groups, the earliest on a tie; a run of one group does not count.
struct ZeroRun {
  int base = -1;
  int len = 0;
};

ZeroRun LongestZeroRun(const uint16_t (&words)[kGroups]) {
  ZeroRun best;
  ZeroRun cur;
  for (int i = 0; i <= kGroups; ++i) {
    if (i < kGroups && words[i] == 0) {
      if (cur.base < 0) cur = {i, 0};
      ++cur.len;
      continue;
    }
    if (cur.base >= 0 && cur.len > best.len) best = cur;
    cur = ZeroRun();
  }
  if (best.len < 2) best = ZeroRun();
  return best;
}

// Moves the groups after the gap to the end and fills the gap with zeros. False when there
// are fewer than eight groups and no gap; with eight groups a recorded gap stands for nothing.
bool CloseGap(uint16_t (&groups)[kGroups], int count, int gap) {
  if (count == kGroups) return true;
  if (gap < 0) return false;
  const int tail = count - gap;
  memmove(&groups[kGroups - tail], &groups[gap], sizeof(uint16_t) * static_cast<size_t>(tail));
  for (int i = gap; i < kGroups - tail; ++i)
    groups[i] = 0;
  return true;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

enum class Quick { kAccepted, kRefused, kNotPlain };

// Reads text made only of hex digits, colons and white space, with the rules of the general
// reader: at most 9 colons, fields of 1 to 4 digits or empty, one inner gap. kNotPlain for
// any other character, which the general reader must judge.
Quick ReadPlain(const char* text, unsigned char out[16]) {
  uint16_t groups[kGroups] = {};
  int count = 0;
  int gap = -1;
  int colons = 0;
  int digits = 0;      // in the current field
  unsigned value = 0;  // of the current field
  bool refused = false;
  // Ends the current field; `last` when it is the last one. Fields are judged as the general
  // reader judges them, but a refusal is only noted: a later character may still make the
  // text not plain, and then the general reader decides.
  auto end_field = [&](bool last) {
    if (digits == 0) {
      if (colons != 0 && !last) {
        if (gap >= 0) refused = true;
        gap = count;
      }
    } else if (digits > 4 || count >= kGroups) {
      refused = true;
    } else {
      groups[count++] = static_cast<uint16_t>(value);
    }
    digits = 0;
    value = 0;
  };
  for (size_t i = 0; i < kWorkBytes - 1 && text[i] != '\0'; ++i) {
    const char c = text[i];
    const int v = HexValue(c);
    if (v >= 0) {
      ++digits;
      value = (value << 4 | static_cast<unsigned>(v)) & 0xFFFFu;
    } else if (c == ':') {
      end_field(false);
      if (++colons > kMaxColons) refused = true;
    } else if (isspace(static_cast<unsigned char>(c)) == 0) {
      return Quick::kNotPlain;
    }
  }
  end_field(true);
  if (refused || !CloseGap(groups, count, gap)) return Quick::kRefused;
  StoreGroups(groups, out);
  return Quick::kAccepted;
}

}  // namespace

bool ParseColonHex(const char* text, unsigned char out[16]) {
  const Quick quick = ReadPlain(text, out);
  if (quick != Quick::kNotPlain) return quick == Quick::kAccepted;
  char work[kWorkBytes];
  const size_t len = strnlen(text, kWorkBytes - 1);
  memcpy(work, text, len);
  work[len] = '\0';
  string_white_space_trim(work);

  uint16_t groups[kGroups] = {};
  int gap = -1;
  const int count = ReadFields(work, groups, &gap);
  if (count < 0 || !CloseGap(groups, count, gap)) return false;
  StoreGroups(groups, out);
  return true;
}

char* FormatColonHex(const unsigned char src[16], char* dst, int len) {
  uint16_t words[kGroups];
  for (size_t i = 0; i < kGroups; ++i) {
    words[i] = static_cast<uint16_t>((src[2 * i] << 8) | src[2 * i + 1]);
  }
  const ZeroRun run = LongestZeroRun(words);

  char work[128];
  size_t pos = 0;
  for (int i = 0; i < kGroups; ++i) {
    if (run.base >= 0 && i >= run.base && i < run.base + run.len) {
      if (i == run.base) work[pos++] = ':';
      continue;
    }
    if (i != 0) work[pos++] = ':';
    if (i == 6 && run.base == 0 && (run.len == 6 || (run.len == 5 && words[5] == 0xFFFF))) {
      // IPv4-compatible or IPv4-mapped: only the dotted quad reaches the caller, without the
      // "::" or "::ffff:" before it, unterminated and unchecked against len. Settled behaviour
      // that callers rely on.
      const int quad = FormatDottedQuad(src + 12, work + pos, sizeof work - pos);
      memcpy(dst, work + pos, static_cast<size_t>(quad));
      return dst;
    }
    pos += static_cast<size_t>(snprintf(work + pos, sizeof work - pos, "%x", words[i]));
  }
  if (run.base >= 0 && run.base + run.len == kGroups) work[pos++] = ':';
  work[pos] = '\0';
  if (static_cast<size_t>(len) < pos + 1) return nullptr;
  strncpy(dst, work, static_cast<size_t>(len));  // pads with zeros up to len
  return dst;
}

}  // namespace internal
}  // namespace oxa
