/** \file
 * liboxa: network addresses. The address record, address family selectors, the library-wide
 * default family, and conversions between addresses, integers and text.
 *
 * None of these functions allocates memory, takes a lock, prints, or touches the last-error
 * slot. All are reentrant except OXA_GetAddrString, which returns one shared static buffer.
 */
#ifndef OXA_ADDR_H_
#define OXA_ADDR_H_

#include <netinet/in.h>
#include <sys/socket.h>

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * A socket address, laid out exactly as the system's IPv4 (sockaddr_in) or IPv6 (sockaddr_in6)
 * socket address and as large as the IPv6 form (28 bytes), so a pointer to it goes to the
 * system calls unchanged. The first field, the family, says which form is in use: 2 (AF_INET)
 * or 10 (AF_INET6); any other value marks an unusable record. Port and address are in network
 * byte order. Whenever the library fills a record it clears all of it first, so the bytes the
 * form does not use are zero, as are the IPv6 flow information and scope identifier.
 * When a record goes to the system its length is 16 for family 2 and 28 otherwise.
 */
typedef union OXA_ADDR_T {
  struct sockaddr sa;      /**< the common head: sa.sa_family is the family */
  struct sockaddr_in in4;  /**< the IPv4 form */
  struct sockaddr_in6 in6; /**< the IPv6 form */
} OXA_ADDR_T;

/** A host-order view of an address, filled by OXA_GetAddrInfo. */
typedef struct OXA_ADDR_INFO_T {
  unsigned int family; /**< the record's family (2 or 10) */
  /**
   * Family 2: the first 4 bytes hold the IPv4 address as stored (network order) and the other
   * 12 are left as they were. Any other family: the 16 bytes of the IPv6 address.
   */
  unsigned char addr[16];
  unsigned short port; /**< port in host byte order */
} OXA_ADDR_INFO_T;

/*
 * Address family selectors. Functions that take a family accept 2 (AF_INET, IPv4), 10
 * (AF_INET6, IPv6 only) and the two values below.
 */
/** An IPv6 socket that also accepts IPv4 peers; as an address, the IPv6 wildcard. */
#define OXA_AF_DUAL 101
/** Whatever the host prefers: replaced by g_Af before anything else is done. */
#define OXA_AF_DEFAULT 102

/**
 * The library-wide default family, used in place of OXA_AF_DEFAULT. Starts as 2 (AF_INET);
 * every OXA_InitEx sets it from the host's adapters: 101 when IPv4 and IPv6 addresses are both
 * present, 2 for IPv4 only, 10 for IPv6 only, unchanged when the enumeration fails or finds
 * neither. Read without a lock.
 */
OXA_API extern int g_Af;

/** Resolves a family selector: g_Af when af is OXA_AF_DEFAULT (102), else af unchanged. */
OXA_API int OXA_GetAf_Inner(int af);

/**
 * Fills addr from address text and a port in host order. 0 on success, -1 on failure.
 * - null addr: -1.
 * - null or empty text: the wildcard of the family (family 2: 0.0.0.0; 10 and 101: the IPv6
 *   wildcard with family 10); any other family: -1.
 * - text without ":" (other than "0.0.0.0") is always read as IPv4 by the system's inet_addr,
 *   whatever family was asked for; "255.255.255.255" and bad text give -1.
 * - text with ":" or "0.0.0.0": family 101 gives the IPv6 wildcard for "::" and "0.0.0.0" and
 *   otherwise parses the text as IPv6 (see OXA_InetPton); family 10 parses it as IPv6 (so
 *   "0.0.0.0" fails); family 2 accepts "0.0.0.0" as the IPv4 wildcard and fails on a colon;
 *   any other family fails.
 * On failure the record is all zero or holds only family and port. errno is not set.
 */
OXA_API int OXA_MakeAddrByString(int af, const char* text, unsigned short port, OXA_ADDR_T* addr);
/** An IPv4 record from an address as stored (network order) and a port in host order. 0; -1 for
 *  a null addr. */
OXA_API int OXA_MakeAddr4ByInt(unsigned int ip, unsigned short port, OXA_ADDR_T* addr);
/** An IPv6 record from 16 address bytes and a port in host order. 0; -1 for a null pointer. */
OXA_API int OXA_MakeAddr6ByInt(const unsigned char ip[16], unsigned short port, OXA_ADDR_T* addr);
/**
 * Copies len bytes of a system socket address into addr; the rest of the record is left as
 * it was. 0; -1, with addr unchanged, when a pointer is null or len is not positive (errno
 * EINVAL for a negative len). The length is not compared with the record's size: the caller
 * keeps it within.
 */
OXA_API int OXA_MakeAddr(const void* sysaddr, int len, OXA_ADDR_T* addr);
/** Sets the port (host order); nothing else changes. 0; -1 for a null addr. */
OXA_API int OXA_SetAddrPort(OXA_ADDR_T* addr, unsigned short port);
/** The family field, or -1 for a null addr. */
OXA_API int OXA_GetAddrType(const OXA_ADDR_T* addr);
/** The port in host order; 0 for a null addr. */
OXA_API unsigned short OXA_GetAddrPort(const OXA_ADDR_T* addr);
/** The IPv4 address as stored (network order) into *ip. 0; -1, with *ip unchanged, for null
 *  pointers or a family other than 2. */
OXA_API int OXA_GetAddr4Int(const OXA_ADDR_T* addr, unsigned int* ip);
/** The 16 IPv6 address bytes into ip. Any family but 2 is read as IPv6. 0; -1, with ip
 *  unchanged, for null pointers or family 2. */
OXA_API int OXA_GetAddr6Int(const OXA_ADDR_T* addr, unsigned char ip[16]);
/** Fills the host-order view of addr. 0; -1 when either pointer is null. */
OXA_API int OXA_GetAddrInfo(const OXA_ADDR_T* addr, OXA_ADDR_INFO_T* info);
/**
 * Prints the address part (no port) into buf with OXA_InetNtop, with its length rules, and
 * returns buf; null when a pointer is null, len is 0, the family is neither 2 nor 10, or the
 * text does not fit (buf is then untouched).
 */
OXA_API char* OXA_GetAddrStringEx(const OXA_ADDR_T* addr, char* buf, int len);
/**
 * As OXA_GetAddrStringEx into a static 128-byte buffer, cleared first, that all callers and
 * threads share: the next call overwrites it. The buffer, or null on failure.
 */
OXA_API char* OXA_GetAddrString(const OXA_ADDR_T* addr);
/**
 * The peer (getpeername) and local (getsockname) address of a socket; either record may be
 * null, not both (-1). The peer is read first: when that fails the result is -1 and local is not
 * filled. A record is written only when its system call succeeds. 0 or -1, errno from the system.
 */
OXA_API int OXA_GetAddrBySockFd(int fd, OXA_ADDR_T* local, OXA_ADDR_T* peer);

/**
 * Parses address text into dst. Text with ":" is colon-hexadecimal IPv6 (16 bytes written),
 * other text a strict dotted quad (4 bytes written). 0 on success; -1 on bad text or a null
 * pointer, with dst unchanged.
 *
 * Dotted quad: exactly four decimal numbers 0-255 separated by single dots; leading zeros are
 * decimal ("010.1.1.1" is 10.1.1.1); nothing else, white space included, is allowed.
 *
 * IPv6: white space anywhere is removed first (only the first 255 characters are read); at
 * most 9 colons; each field is 1-4 hexadecimal digits, empty (one "::" gap), or an embedded
 * dotted quad of 7-15 characters read leniently by ipv4_to_i (it may stand before other
 * groups). Eight groups make a complete address, and then a leading or trailing colon and even a
 * "::" are accepted and ignored ("::1:2:3:4:5:6:7:8" is 1:2:3:4:5:6:7:8).
 */
OXA_API int OXA_InetPton(const char* text, void* dst);
/**
 * Prints 4 (af 2) or 16 (af 10) address bytes into dst of size len; dst, or null for null
 * pointers, len 0, another family, or text that does not fit.
 * - IPv4: "%u.%u.%u.%u", copied bounded by len and padded with zero bytes; when len equals the
 *   text's length exactly, no terminating zero is written.
 * - IPv6: lower-case groups without leading zeros; the longest run of two or more zero groups
 *   (the earliest on a tie) becomes "::"; the text needs len >= length + 1 and is copied padded
 *   with zeros to len. IPv4-compatible (\::a.b.c.d) and IPv4-mapped (\::ffff:a.b.c.d)
 *   addresses write only the dotted quad "a.b.c.d", without terminating zero or padding; null
 *   when len is shorter than the dotted quad.
 * Nothing is written to dst when the result is null.
 */
OXA_API char* OXA_InetNtop(int af, const unsigned char* src, char* dst, int len);

/**
 * Reads "%d.%d.%d.%d" (sscanf rules: leading white space and signs allowed, anything after the
 * fourth number ignored) into a host-order integer whose most significant byte is the first
 * number. 1 on success; 0, with *ip unchanged, for a null pointer, fewer than four numbers,
 * or one outside 0-255.
 */
OXA_API int ipv4_to_i(const char* text, unsigned int* ip);
/**
 * Removes every white-space character (isspace) from anywhere in text, in place; returns
 * text (null for null).
 */
OXA_API char* string_white_space_trim(char* text);
/** How often c occurs in text; 0 for an empty or null text. */
OXA_API int string_char_count(const char* text, char c);
/**
 * Classifies one colon-separated IPv6 field: 1 when empty (a gap), 0 for 1-4 hexadecimal digits
 * (a group), 2 for 7-15 characters that ipv4_to_i accepts (an embedded IPv4 address), -1 for
 * anything else (a null pointer included).
 */
OXA_API int ipv6_address_field_type_get(const char* field);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif /* OXA_ADDR_H_ */
