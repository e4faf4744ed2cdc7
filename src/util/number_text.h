// Integer to text, shared by the flat functions and oxa::oxa_string::itoa.
#ifndef OXA_SRC_UTIL_NUMBER_TEXT_H_
#define OXA_SRC_UTIL_NUMBER_TEXT_H_

namespace oxa::internal {

// Writes value in base 2-36 into buffer and returns it; null for a null buffer or a bad base.
// Instantiated for int and long.
template <typename Int>
char* IntegerToText(char* buffer, Int value, unsigned int base);

}  // namespace oxa::internal

#endif  // OXA_SRC_UTIL_NUMBER_TEXT_H_
