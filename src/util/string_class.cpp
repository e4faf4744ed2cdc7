// oxa::oxa_string: static wrappers over the C library's string functions.
#include <stdlib.h>
#include <string.h>

#include <cstring>

#include "oxa_string.h"

#include "util/number_text.h"

namespace oxa {

oxa_string::~oxa_string() = default;

char* oxa_string::itoa(char* buffer, int value, int base) {
  if (base < 2 || base > 36) return nullptr;  // also keeps a negative base from wrapping
  return internal::IntegerToText(buffer, value, static_cast<unsigned int>(base));
}

long oxa_string::atoi(const char* text) { return ::strtol(text, nullptr, 10); }
char* oxa_string::strcpy(char* dst, const char* src) { return ::strcpy(dst, src); }
char* oxa_string::strcat(char* dst, char* src) { return ::strcat(dst, src); }
char* oxa_string::strncpy(char* dst, const char* src, int n) {
  return ::strncpy(dst, src, static_cast<size_t>(n));
}
size_t oxa_string::strlen(const char* text) { return ::strlen(text); }
int oxa_string::strcmp(const char* a, const char* b) { return ::strcmp(a, b); }
int oxa_string::strcasecmp(const char* a, const char* b) { return ::strcasecmp(a, b); }
int oxa_string::strncasecmp(const char* a, const char* b, int n) {
  return ::strncasecmp(a, b, static_cast<size_t>(n));
}
char* oxa_string::strchr(const char* text, char c) {
  return const_cast<char*>(std::strchr(text, c));
}
char* oxa_string::strrchr(const char* text, char c) {
  return const_cast<char*>(std::strrchr(text, c));
}
char* oxa_string::strstr(const char* hay, const char* needle) {
  return const_cast<char*>(std::strstr(hay, needle));
}

}  // namespace oxa
