// UTF-8 <-> EUC-CN through iconv, all or nothing.
#include <iconv.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "oxa_string.h"

namespace {

// Converts the whole text in one iconv call into a zeroed area of 3 * length + 1 bytes, which
// holds the longest result either way (two EUC-CN bytes become at most three UTF-8 bytes).
// Any failure, including an invalid or incomplete sequence anywhere, gives an empty string.
std::string Convert(const char* text, const char* to, const char* from) {
  if (text == nullptr) return std::string();
  const size_t length = strlen(text);
  if (length > (SIZE_MAX - 1) / 3) return std::string();
  const iconv_t converter = iconv_open(to, from);
  if (converter == reinterpret_cast<iconv_t>(-1)) return std::string();
  const size_t size = 3 * length + 1;
  std::unique_ptr<char, decltype(&free)> area(static_cast<char*>(calloc(size, 1)), &free);
  std::string result;
  if (area != nullptr) {
    char* in = const_cast<char*>(text);  // iconv's interface is not const-correct
    size_t in_left = length;
    char* out = area.get();
    size_t out_left = size - 1;  // the last byte stays zero
    if (iconv(converter, &in, &in_left, &out, &out_left) != static_cast<size_t>(-1)) {
      result.assign(area.get());
    }
  }
  iconv_close(converter);
  return result;
}

}  // namespace

std::string OXA_UTF82A(const char* text) { return Convert(text, "EUC-CN", "UTF-8"); }

std::string OXA_A2UTF8(const char* text) { return Convert(text, "UTF-8", "EUC-CN"); }
