// The library's version, as a number and as text for tools that read the library's data.
#include "oxa_frame.h"

extern "C" {

OXA_API const char* pVersion = "version: 1.1.15.460672";

OXA_API unsigned int OXA_GetOXAVersion(void) {
  return 0x0101000Cu;  // bytes from the most significant: 1, 1, 0, 12
}

}  // extern "C"
