// The IPv6 part of the adapter list, read from a routing netlink dump.
#ifndef OXA_SRC_NET_ADAPTER_NETLINK_H_
#define OXA_SRC_NET_ADAPTER_NETLINK_H_

#include "oxa_netinfo.h"

namespace oxa {
namespace internal {

// Dumps the IPv6 links and addresses and appends each address to the IPv6 list of the adapter
// whose MAC matches the address's link. A netlink socket that cannot be opened or bound leaves
// the list as it is. 0; -1 only when memory for a node runs out, in which case the nodes added
// so far stay in the list (the caller frees the list as a whole).
int AddIpv6Addresses(OXA_ADAPTER_INFO_T* list);

}  // namespace internal
}  // namespace oxa

#endif  // OXA_SRC_NET_ADAPTER_NETLINK_H_
