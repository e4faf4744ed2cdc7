// Forwards to the shared record helpers, which moved to the base module; remove once no file
// includes this path.
#ifndef OXA_SRC_NET_SOCKET_ADDRESS_H_
#define OXA_SRC_NET_SOCKET_ADDRESS_H_

#include "frame/socket_address.h"

#endif  // OXA_SRC_NET_SOCKET_ADDRESS_H_
