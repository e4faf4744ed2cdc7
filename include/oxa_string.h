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
 * null when buffer is null or base is outside 2-36. Only base 10 prints a sign: a negative value
 * in any other base gives one character, '0' plus the (negative) first remainder. Needs at most
 * 34 bytes (base 2: 32 digits, sign, terminator).
 */
OXA_API char* OXA_Itoa(char* buffer, int value, unsigned int base);

/** OXA_Itoa for a long (32 bits on the target; 66 bytes may be needed on 64-bit hosts). */
OXA_API char* OXA_Ltoa(char* buffer, long value, unsigned int base);

/**
 * Reads a 32-bit integer: white space, one optional sign, then digits. Base 0 or 16 accepts a
 * "0x"/"0X" prefix (base 16); base 0 is otherwise 8 after a leading "0" and 10 else. A
 * resulting base outside 2-16 gives 0. The scan stops at the first byte that is not a digit
 * below the base. Overflow saturates to 0x7FFFFFFF or 0x80000000 (the rest of the digits is
 * still consumed). Without any digit the result is 0 and *end is text itself; otherwise *end
 * is the byte after the last digit. end may be null.
 */
OXA_API int OXA_StrToi32(const char* text, char** end, int base);

/** OXA_StrToi32(text, null, 10). */
OXA_API int OXA_Atoi32(const char* text);

/**
 * As OXA_StrToi32 in 64 bits, with two differences kept for compatibility: a digit equal to
 * the base is still accepted (in base 10 "1a" reads as 20), and overflow in either direction
 * gives -1 rather than a saturated value.
 */
OXA_API oxa_int64 OXA_StrToi64(const char* text, char** end, int base);

/** OXA_StrToi64(text, null, 10). */
OXA_API oxa_int64 OXA_Atoi64(const char* text);

/** Copies src up to and including its terminator. */
OXA_API void OXA_Strcpy(char* dst, const char* src);

/**
 * Copies at most n bytes of src, stopping after its terminator, and fills the rest of the n
 * bytes with zeros (so dst is unterminated when src is n bytes or longer). n <= 0 copies
 * nothing.
 */
OXA_API void OXA_Strncpy(char* dst, const char* src, int n);

/** A malloc'ed copy of text; null when the allocation fails. */
OXA_API char* OXA_Strdup(const char* text);

/** A malloc'ed copy of the first min(length, n) bytes plus a terminator (n < 0 counts as 0). */
OXA_API char* OXA_Strndup(const char* text, int n);

/** The difference of the first differing bytes (as unsigned), 0 when equal. */
OXA_API int OXA_Strcmp(const char* a, const char* b);

/** As OXA_Strcmp within the first n bytes; n <= 0 gives 0. */
OXA_API int OXA_Strncmp(const char* a, const char* b, int n);

/** Compares toupper of each byte; the difference of the first differing upper-cased bytes. */
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
 * The first position where the first len bytes of pattern occur in text; null when text is
 * shorter than len. pattern must have len readable bytes; len = 0 gives text.
 */
OXA_API char* OXA_Strnstr(const char* text, const char* pattern, unsigned int len);

/** Case-blind search: an empty needle gives hay; otherwise the first match, else null. */
OXA_API char* OXA_Strcasestr(const char* hay, const char* needle);

#ifdef __cplusplus
}  // extern "C"

#include <string>

/**
 * UTF-8 text to EUC-CN (GB2312). An invalid or truncated sequence anywhere, a character that
 * EUC-CN lacks, or a null text gives an empty string: there is no partial result.
 */
OXA_API std::string OXA_UTF82A(const char* text);

/** EUC-CN text to UTF-8, with the failures of OXA_UTF82A. */
OXA_API std::string OXA_A2UTF8(const char* text);

namespace oxa {

/** Static wrappers: all but itoa pass straight to the C library's function of the same name. */
class OXA_API oxa_string {
 public:
  virtual ~oxa_string();

  /** As OXA_Itoa; null for a null buffer or a base outside 2-36. */
  static char* itoa(char* buffer, int value, int base);
  /** strtol(text, null, 10). */
  static long atoi(const char* text);
  static char* strcpy(char* dst, const char* src);
  static char* strcat(char* dst, char* src);
  static char* strncpy(char* dst, const char* src, int n);
  static size_t strlen(const char* text);
  static int strcmp(const char* a, const char* b);
  static int strcasecmp(const char* a, const char* b);
  static int strncasecmp(const char* a, const char* b, int n);
  static char* strchr(const char* text, char c);
  static char* strrchr(const char* text, char c);
  static char* strstr(const char* hay, const char* needle);
};

}  // namespace oxa

#endif  // __cplusplus

#endif /* OXA_STRING_H_ */
