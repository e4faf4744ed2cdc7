// OXA_InetPton and OXA_InetNtop: address bytes to and from text.
#include <netinet/in.h>
#include <string.h>

#include "oxa_addr.h"

#include "net/addr_text.h"

namespace {

char* FormatIpv4(const unsigned char* src, char* dst, int len) {
  char work[16];
  const int text_len = oxa::internal::FormatDottedQuad(src, work, sizeof work);
  if (len < text_len) return nullptr;
  // Bounded by len and padded with zeros: when len equals the text's length exactly, no
  // terminating zero is written. Callers rely on this; keep it.
  strncpy(dst, work, static_cast<size_t>(len));
  return dst;
}

// The IPv6 printer writes into a scratch buffer first, so that the caller's buffer never
// receives more than len bytes. Its text for IPv4-compatible and IPv4-mapped addresses is the
// bare dotted quad, unterminated; that is the one form without a colon, and it is handed on
// unterminated too, when it fits. Every other text keeps the printer's own length rule (room
// for the terminator, zero padding up to len).
char* FormatIpv6(const unsigned char* src, char* dst, int len) {
  char work[64] = {};
  if (oxa::internal::FormatColonHex(src, work, sizeof work) == nullptr) return nullptr;
  if (strchr(work, ':') != nullptr) return oxa::internal::FormatColonHex(src, dst, len);
  const size_t quad = strlen(work);
  if (static_cast<size_t>(len) < quad) return nullptr;
  memcpy(dst, work, quad);
  return dst;
}

}  // namespace

// ---- C entry points ----------------------------------------------------------------------

extern "C" {

OXA_API int OXA_InetPton(const char* text, void* dst) {
  if (text == nullptr || dst == nullptr) return OXA_ERROR;
  unsigned char* out = static_cast<unsigned char*>(dst);
  const bool ok = strchr(text, ':') != nullptr ? oxa::internal::ParseColonHex(text, out)
                                               : oxa::internal::ParseDottedQuad(text, out);
  return ok ? 0 : OXA_ERROR;
}

OXA_API char* OXA_InetNtop(int af, const unsigned char* src, char* dst, int len) {
  if (src == nullptr || dst == nullptr || len == 0) return nullptr;
  if (af == AF_INET) return FormatIpv4(src, dst, len);
  if (af == AF_INET6) return len < 0 ? nullptr : FormatIpv6(src, dst, len);
  return nullptr;
}

}  // extern "C"
