// The strict dotted-quad reader and the dotted-quad printer.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "net/addr_text.h"

namespace oxa {
namespace internal {

bool ParseDottedQuad(const char* text, unsigned char out[4]) {
  unsigned char bytes[4] = {};
  int octets = 0;  // octets begun
  bool in_number = false;
  for (const char* p = text; *p != '\0'; ++p) {
    const char c = *p;
    if (c >= '0' && c <= '9') {
      if (!in_number) {
        if (++octets > 4) return false;
        in_number = true;
      }
      // Leading zeros are plain decimal digits here: "010" is ten.
      const unsigned int value = bytes[octets - 1] * 10u + static_cast<unsigned int>(c - '0');
      if (value > 255) return false;
      bytes[octets - 1] = static_cast<unsigned char>(value);
    } else if (c == '.' && in_number && octets < 4) {
      in_number = false;
    } else {
      return false;  // white space, a sign, an empty octet or a fifth octet
    }
  }
  if (octets < 4) return false;
  memcpy(out, bytes, sizeof bytes);
  return true;
}

int FormatDottedQuad(const unsigned char src[4], char* buf, size_t size) {
  return snprintf(buf, size, "%u.%u.%u.%u", static_cast<unsigned int>(src[0]),
                  static_cast<unsigned int>(src[1]), static_cast<unsigned int>(src[2]),
                  static_cast<unsigned int>(src[3]));
}

}  // namespace internal
}  // namespace oxa
