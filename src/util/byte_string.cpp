// Byte-string functions written out by hand, so that their edge behaviour is the library's own
// and does not change with the platform's C library.
#include <ctype.h>
#include <stdlib.h>
#include <string.h>

#include "oxa_string.h"

namespace {

inline unsigned char Byte(const char* p) { return static_cast<unsigned char>(*p); }
inline int Upper(const char* p) { return toupper(Byte(p)); }

}  // namespace

extern "C" void OXA_Strcpy(char* dst, const char* src) {
  while ((*dst++ = *src++) != '\0') {
  }
}

extern "C" void OXA_Strncpy(char* dst, const char* src, int n) {
  int i = 0;
  for (; i < n && src[i] != '\0'; ++i)
    dst[i] = src[i];
  for (; i < n; ++i)
    dst[i] = '\0';
}

extern "C" char* OXA_Strdup(const char* text) {
  const size_t size = strlen(text) + 1;
  char* copy = static_cast<char*>(malloc(size));
  if (copy != nullptr) memcpy(copy, text, size);
  return copy;
}

extern "C" char* OXA_Strndup(const char* text, int n) {
  const size_t length = n > 0 ? strnlen(text, static_cast<size_t>(n)) : 0;
  char* copy = static_cast<char*>(malloc(length + 1));
  if (copy == nullptr) return nullptr;
  memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

extern "C" int OXA_Strcmp(const char* a, const char* b) {
  while (*a != '\0' && *a == *b)
    ++a, ++b;
  return Byte(a) - Byte(b);
}

extern "C" int OXA_Strncmp(const char* a, const char* b, int n) {
  for (int i = 0; i < n; ++i) {
    if (a[i] != b[i] || a[i] == '\0') return Byte(a + i) - Byte(b + i);
  }
  return 0;
}

extern "C" int OXA_Strcasecmp(const char* a, const char* b) {
  while (*a != '\0' && Upper(a) == Upper(b))
    ++a, ++b;
  return Upper(a) - Upper(b);
}

extern "C" int OXA_Strncasecmp(const char* a, const char* b, int n) {
  if (n == 0) return 0;
  if (n < 0) return Upper(a) - Upper(b);  // only the first bytes take part
  for (int i = 0; i < n; ++i) {
    const int diff = Upper(a + i) - Upper(b + i);
    if (diff != 0 || a[i] == '\0') return diff;
  }
  return 0;
}

extern "C" char* OXA_Strchr(const char* text, int c) {
  const char wanted = static_cast<char>(c);
  if (*text == '\0') return wanted == '\0' ? const_cast<char*>(text) : nullptr;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p == wanted) return const_cast<char*>(p);
  }
  return nullptr;  // the terminator of a non-empty text is never a match
}

extern "C" char* OXA_Strnchr(const char* text, int c, int n) {
  const char wanted = static_cast<char>(c);
  for (int i = 0; i < n; ++i) {
    if (text[i] == wanted) return const_cast<char*>(text + i);
  }
  return nullptr;
}

extern "C" char* OXA_Strstr(const char* hay, const char* needle) {
  return const_cast<char*>(strstr(hay, needle));
}

extern "C" char* OXA_Strnstr(const char* text, const char* pattern, unsigned int len) {
  const size_t length = strlen(text);
  if (length < len) return nullptr;
  for (size_t offset = 0; offset + len <= length; ++offset) {
    if (memcmp(text + offset, pattern, len) == 0) return const_cast<char*>(text + offset);
  }
  return nullptr;
}

extern "C" char* OXA_Strcasestr(const char* hay, const char* needle) {
  if (*needle == '\0') return const_cast<char*>(hay);
  const int first = tolower(Byte(needle));
  const int rest = static_cast<int>(strlen(needle + 1));
  for (const char* p = hay; *p != '\0'; ++p) {
    if (tolower(Byte(p)) == first && OXA_Strncasecmp(p + 1, needle + 1, rest) == 0) {
      return const_cast<char*>(p);
    }
  }
  return nullptr;
}
