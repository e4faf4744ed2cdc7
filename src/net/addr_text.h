// Text forms of addresses: the parsers and printers behind OXA_InetPton and OXA_InetNtop.
//
// The library reads and prints addresses itself rather than through the system's
// inet_pton/inet_ntop: its accepted forms are a documented contract (leading zeros in dotted
// quads, white space and end colons in IPv6 text, the bare dotted quad printed for
// IPv4-compatible and IPv4-mapped addresses) that the system's functions do not share.
#ifndef OXA_SRC_NET_ADDR_TEXT_H_
#define OXA_SRC_NET_ADDR_TEXT_H_

#include <stddef.h>

namespace oxa {
namespace internal {

// Strict dotted quad: four decimal numbers 0-255 joined by single dots, nothing else. Writes
// the 4 bytes in network order and returns true; on failure `out` is left untouched.
bool ParseDottedQuad(const char* text, unsigned char out[4]);

// Colon-hexadecimal IPv6 text (see OXA_InetPton). Writes the 16 bytes in network order and
// returns true; on failure `out` is left untouched.
bool ParseColonHex(const char* text, unsigned char out[16]);

// "%u.%u.%u.%u" of 4 address bytes into `buf` of `size` bytes (terminated when size > 0).
// Returns the length of the full text, as snprintf does.
int FormatDottedQuad(const unsigned char src[4], char* buf, size_t size);

// The IPv6 printer of OXA_InetNtop; `dst` and `len` are as the caller gave them (non-null, > 0).
char* FormatColonHex(const unsigned char src[16], char* dst, int len);

}  // namespace internal
}  // namespace oxa

#endif  // OXA_SRC_NET_ADDR_TEXT_H_
