// The library-wide default address family and the resolution of OXA_AF_DEFAULT.
#include <sys/socket.h>

#include "oxa_addr.h"

extern "C" {

// Written by library start-up from the adapter list, read everywhere without a lock.
OXA_API int g_Af = AF_INET;

OXA_API int OXA_GetAf_Inner(int af) { return af == OXA_AF_DEFAULT ? g_Af : af; }

}  // extern "C"
