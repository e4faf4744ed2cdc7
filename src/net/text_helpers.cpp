// The small text routines the IPv6 parser is built from. They are exported under their own
// names, so they check their pointers like every other entry point.
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "oxa_addr.h"

namespace {

// Field classes of ipv6_address_field_type_get.
constexpr int kFieldInvalid = -1;
constexpr int kFieldGroup = 0;
constexpr int kFieldGap = 1;
constexpr int kFieldIpv4 = 2;

bool AllHexDigits(const char* text) {
  for (; *text != '\0'; ++text) {
    if (isxdigit(static_cast<unsigned char>(*text)) == 0) return false;
  }
  return true;
}

}  // namespace

// ---- C entry points ----------------------------------------------------------------------

extern "C" {

OXA_API int ipv4_to_i(const char* text, unsigned int* ip) {
  if (text == nullptr || ip == nullptr) return 0;
  int part[4];
  // Lenient on purpose: sscanf skips leading white space, takes signs and ignores the tail.
  if (sscanf(text, "%d.%d.%d.%d", &part[0], &part[1], &part[2], &part[3]) != 4) return 0;
  unsigned int value = 0;
  for (int p : part) {
    if (p < 0 || p > 255) return 0;
    value = (value << 8) | static_cast<unsigned int>(p);
  }
  *ip = value;
  return 1;
}

OXA_API char* string_white_space_trim(char* text) {
  if (text == nullptr) return nullptr;
  char* out = text;
  for (const char* in = text; *in != '\0'; ++in) {
    if (isspace(static_cast<unsigned char>(*in)) == 0) *out++ = *in;
  }
  *out = '\0';
  return text;
}

OXA_API int string_char_count(const char* text, char c) {
  if (text == nullptr) return 0;
  int count = 0;
  for (; *text != '\0'; ++text) {
    if (*text == c) ++count;
  }
  return count;
}

OXA_API int ipv6_address_field_type_get(const char* field) {
  if (field == nullptr) return kFieldInvalid;
  const size_t len = strlen(field);
  if (len == 0) return kFieldGap;
  if (len <= 4) return AllHexDigits(field) ? kFieldGroup : kFieldInvalid;
  unsigned int ip = 0;
  if (len >= 7 && len <= 15 && ipv4_to_i(field, &ip) != 0) return kFieldIpv4;
  return kFieldInvalid;
}

}  // extern "C"
