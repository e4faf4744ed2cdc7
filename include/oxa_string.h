/** \file
 * liboxa: strings and numbers. Integer to text in bases 2 to 36, text to 32- and 64-bit
 * integers with the library's own base detection and overflow rules, byte-string functions
 * whose edge behaviour is the library's own, and UTF-8 <-> EUC-CN conversion (C++ only).
 *
 * No function here prints, sets errno or touches the last-error slot. Arguments are not checked
 * for null unless a function says so.
 */
#ifndef OXA_STRING_H_
#define OXA_STRING_H_

#include <stddef.h>

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Writes value in base (2 to 36) into buffer, digits "0"-"9" then "a"-"z", and returns buffer;
 * null when buffer is null or base is outside 2-36 (nothing written). Only base 10 prints a
 * sign: a negative value in any other base gives one character, '0' plus the (negative) first
 * remainder. Needs at most 32 bytes (base 2: 31 digits and the terminator).
 */
OXA_API char* OXA_Itoa(char* buffer, int value, unsigned int base);

/**
 * OXA_Itoa for a long: the same results and failures. long is 32 bits on the target; on a 64-bit
 * host base 2 may need 64 bytes.
 */
OXA_API char* OXA_Ltoa(char* buffer, long value, unsigned int base);

/**
 * Reads a 32-bit integer: white space, one optional sign, then digits. Base 0 or 16 accepts a
 * "0x"/"0X" prefix (base 16); base 0 is otherwise 8 after a leading "0" and 10 else. A
 * resulting base outside 2-16 (bases 17-36 included) gives 0 with *end = text. The scan stops at
 * the first byte that is not a digit below the base. Overflow saturates to 0x7FFFFFFF or
 * 0x80000000 (the rest of the digits is still consumed). Without any digit the result is 0 and
 * *end is text itself; otherwise *end is the byte after the last digit. end may be null; a
 * null text gives 0 (with *end null). errno is never set.
 */
OXA_API int OXA_StrToi32(const char* text, char** end, int base);

/** OXA_StrToi32(text, null, 10): the value, 0 without digits, saturated on overflow. */
OXA_API int OXA_Atoi32(const char* text);

/**
 * As OXA_StrToi32 in 64 bits, with two differences kept for compatibility: a digit equal to
 * the base is still accepted (in base 10 "1a" reads as 20), and overflow in either direction
 * gives -1 rather than a saturated value (with *end after the digits).
 */
OXA_API oxa_int64 OXA_StrToi64(const char* text, char** end, int base);

/** OXA_StrToi64(text, null, 10): the value, 0 without digits, -1 on overflow. */
OXA_API oxa_int64 OXA_Atoi64(const char* text);

/** Copies src up to and including its terminator. No result; nothing is checked (not null). */
OXA_API void OXA_Strcpy(char* dst, const char* src);

/**
 * Copies at most n bytes of src, stopping after its terminator, and fills the rest of the n
 * bytes with zeros (so dst is unterminated when src is n bytes or longer). n <= 0 copies
 * nothing.
 */
OXA_API void OXA_Strncpy(char* dst, const char* src, int n);

/** A malloc'ed copy of text (free it with free); null when the allocation fails. */
OXA_API char* OXA_Strdup(const char* text);

/**
 * A malloc'ed copy of the first min(length, n) bytes plus a terminator (n < 0 counts as 0);
 * null when the allocation fails.
 */
OXA_API char* OXA_Strndup(const char* text, int n);

/** The difference of the first differing bytes (as unsigned), 0 when equal. */
OXA_API int OXA_Strcmp(const char* a, const char* b);

/** As OXA_Strcmp within the first n bytes; n <= 0 gives 0. */
OXA_API int OXA_Strncmp(const char* a, const char* b, int n);

/**
 * Compares toupper of each byte: the difference of the first differing upper-cased bytes, 0
 * when equal.
 */
OXA_API int OXA_Strcasecmp(const char* a, const char* b);

/**
 * As OXA_Strcasecmp within the first n bytes; n = 0 gives 0, and a negative n compares the
 * first bytes only.
 */
OXA_API int OXA_Strncasecmp(const char* a, const char* b, int n);

/**
 * The first position holding the byte c, else null. The terminator is found only in an empty
 * text: c = 0 on a non-empty text gives null.
 */
OXA_API char* OXA_Strchr(const char* text, int c);

/**
 * The first of the first n positions holding c, else null; n < 1 gives null. The scan does not
 * stop at a terminator, so all n bytes must be readable.
 */
OXA_API char* OXA_Strnchr(const char* text, int c, int n);

/** The first occurrence of needle in hay (an empty needle gives hay), else null. */
OXA_API char* OXA_Strstr(const char* hay, const char* needle);

/**
 * The first position where the first len bytes of pattern occur in text, else null; null also
 * when text is shorter than len. pattern must have len readable bytes; len = 0 gives text.
 */
OXA_API char* OXA_Strnstr(const char* text, const char* pattern, unsigned int len);

/** Case-blind search: an empty needle gives hay; otherwise the first match, else null. */
OXA_API char* OXA_Strcasestr(const char* hay, const char* needle);

#ifdef __cplusplus
}  // extern "C"

#include <string>

/**
 * UTF-8 text to EUC-CN (GB2312). An invalid or truncated sequence anywhere, a character that
 * EUC-CN lacks, a null text, or a converter or buffer that cannot be had gives an empty string:
 * there is no partial result.
 */
OXA_API std::string OXA_UTF82A(const char* text);

/** EUC-CN text to UTF-8, with the failures of OXA_UTF82A. */
OXA_API std::string OXA_A2UTF8(const char* text);

namespace oxa {

/**
 * Static wrappers: all but itoa pass straight to the C library's function of the same name and
 * return its result, with its behaviour for every argument (nothing is checked for null).
 */
class OXA_API oxa_string {
 public:
  virtual ~oxa_string();

  /** As OXA_Itoa; null for a null buffer or a base outside 2-36. */
  static char* itoa(char* buffer, int value, int base);
  /** strtol(text, null, 10): the value, 0 without digits, LONG_MAX or LONG_MIN on overflow. */
  static long atoi(const char* text);
  /** strcpy: copies src with its terminator; returns dst. */
  static char* strcpy(char* dst, const char* src);
  /** strcat: appends src to dst; returns dst. */
  static char* strcat(char* dst, char* src);
  /** strncpy with n as size_t; returns dst. n must not be negative. */
  static char* strncpy(char* dst, const char* src, int n);
  /** strlen: the bytes before the terminator. */
  static size_t strlen(const char* text);
  /** strcmp: below, at or above 0 as a sorts before, with or after b. */
  static int strcmp(const char* a, const char* b);
  /** strcasecmp: strcmp ignoring case. */
  static int strcasecmp(const char* a, const char* b);
  /** strncasecmp within n bytes (n as size_t: a negative n compares whole strings). */
  static int strncasecmp(const char* a, const char* b, int n);
  /** strchr: the first position of c (the terminator for c = 0), else null. */
  static char* strchr(const char* text, char c);
  /** strrchr: the last position of c (the terminator for c = 0), else null. */
  static char* strrchr(const char* text, char c);
  /** strstr: the first occurrence of needle (hay for an empty needle), else null. */
  static char* strstr(const char* hay, const char* needle);
};

}  // namespace oxa

#endif  // __cplusplus

#endif /* OXA_STRING_H_ */
