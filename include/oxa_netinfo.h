/** \file
 * liboxa: host and adapter information. The host name, the hardware address behind an IPv4
 * address, the list of network adapters with their IPv4 and IPv6 addresses, name resolution
 * into address records, and byte-order conversion.
 *
 * No function keeps state between calls: each one opens its own sockets and closes them before
 * it returns, so all of them may be called from any thread at any time. Lists that a function
 * builds belong to the caller, who hands them back to the matching release function.
 */
#ifndef OXA_NETINFO_H_
#define OXA_NETINFO_H_

#include "oxa_addr.h"
#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Length of an adapter's name field, terminating zero included. */
#define OXA_ADAPTER_NAME_LEN 260
/** Length of a hardware (MAC) address in bytes. */
#define OXA_MAC_ADDR_LEN 6
/** Length of an IPv4 address or mask text field: a dotted quad and its terminating zero. */
#define OXA_IPV4_TEXT_LEN 16

/**
 * One IPv4 address of an adapter. Every node of every adapter list has the same size as this
 * one (and as OXA_IPV6_NODE_T), so that one release routine frees them all.
 */
typedef struct OXA_IPV4_NODE_T {
  struct OXA_IPV4_NODE_T* next; /**< the next node or null */
  char ip[OXA_IPV4_TEXT_LEN];   /**< address as a terminated dotted quad, "192.0.2.1" */
  char mask[OXA_IPV4_TEXT_LEN]; /**< netmask as a terminated dotted quad, "255.255.255.0" */
} OXA_IPV4_NODE_T;

/** One IPv6 address of an adapter; as large as OXA_IPV4_NODE_T. */
typedef struct OXA_IPV6_NODE_T {
  struct OXA_IPV6_NODE_T* next; /**< the next node or null */
  unsigned char ip[16];         /**< the address in network byte order */
  unsigned char reserved[16];   /**< always zero */
} OXA_IPV6_NODE_T;

/**
 * One network adapter: an entry of the system's list of IPv4 interfaces. Records form a singly
 * linked list that belongs to the caller until OXA_FreeAdapterInfo.
 */
typedef struct OXA_ADAPTER_INFO_T {
  struct OXA_ADAPTER_INFO_T* next; /**< the next adapter or null */
  /**
   * Position of the interface in the system's IPv4 interface list, counted from 0. The list
   * runs from the last position to the first.
   */
  unsigned int index;
  /** Interface name, terminated; an address label such as "eth0:1" for an alias. */
  char name[OXA_ADAPTER_NAME_LEN];
  unsigned int macLen;                 /**< always 6 */
  unsigned char mac[OXA_MAC_ADDR_LEN]; /**< hardware address; all zero for the loopback */
  unsigned int type;                   /**< always 0 */
  OXA_IPV4_NODE_T* ipv4List;           /**< exactly one node: the interface's IPv4 address */
  OXA_IPV4_NODE_T* reservedList1;      /**< always null; freed like the other lists */
  OXA_IPV4_NODE_T* reservedList2;      /**< always null; freed like the other lists */
  OXA_IPV6_NODE_T* ipv6List;           /**< the IPv6 addresses, possibly none */
} OXA_ADAPTER_INFO_T;

/**
 * One answer of OXA_GetAddressInfo. Answers form a singly linked list, in the resolver's order,
 * that belongs to the caller until OXA_FreeAddressInfo.
 */
typedef struct OXA_ADDRESS_INFO_T {
  int flags;    /**< the resolver's flags (AI_*) */
  int family;   /**< 2 (AF_INET) or 10 (AF_INET6) */
  int sockType; /**< the socket type: 1 (SOCK_STREAM), 2 (SOCK_DGRAM), 3 (SOCK_RAW) */
  int protocol; /**< the protocol for that socket type, 6 (TCP) or 17 (UDP) */
  /** The address with the service's port; the bytes its form does not use are zero. */
  OXA_ADDR_T addr;
  char* canonName;                 /**< a copy of the canonical name, or null */
  struct OXA_ADDRESS_INFO_T* next; /**< the next answer or null */
} OXA_ADDRESS_INFO_T;

/**
 * What the caller asks OXA_GetAddressInfo for. flags, family (0 for any, 2, 10), sockType and
 * protocol (0 for any) are the resolver's own values. addr and canonName are handed on to the
 * resolver as given, with the length of addr taken from its family (16 bytes for 2, 28 for any
 * other); the system's resolver does not read them, so zero them.
 */
typedef struct OXA_ADDRESS_HINTS_T {
  int flags;       /**< the resolver's flags (AI_*), 0 for none */
  int family;      /**< 0 for any, 2 (AF_INET) or 10 (AF_INET6) */
  int sockType;    /**< the socket type, 0 for any */
  int protocol;    /**< the protocol, 0 for any */
  OXA_ADDR_T addr; /**< handed on as given (length by its family); zero it */
  char* canonName; /**< handed on as given; set it to null */
} OXA_ADDRESS_HINTS_T;

/**
 * Copies the host's name into name, a buffer of len bytes. 0; -1 for a null name or when the
 * system's gethostname fails (errno from it: ENAMETOOLONG when the name and its terminating
 * zero do not fit).
 */
OXA_API int OXA_GetHostName(char* name, unsigned int len);

/**
 * Finds the hardware address of the interface that carries the IPv4 address ipText (a dotted
 * quad, read by the system's inet_addr) and copies its 6 bytes into mac, which must have room
 * for 6 bytes whatever *len says.
 *
 * A null ipText, mac or len, or *len of 0, prints "trovik OXA_GetMacAddr parameter error,
 * return OXA_ERROR" on the debug channel and returns -1 with nothing changed. Otherwise *len is
 * set to 6 first. Only the first 16 entries of the system's IPv4 interface list are looked at,
 * from the last to the first. 0 when an interface matched; -1, with mac unchanged, when none
 * carries the address (an interface whose hardware address cannot be read is passed over) or
 * the socket or the interface list cannot be had (errno from the failing call).
 */
OXA_API int OXA_GetMacAddr(const char* ipText, unsigned char mac[6], unsigned int* len);

/**
 * Builds the list of network adapters and stores it in *list; the caller frees it with
 * OXA_FreeAdapterInfo. 0 on success (an empty list is null); -1 for a null list, when the
 * IPv4 part fails or when memory for an IPv6 node runs out, with *list unchanged and nothing
 * left allocated.
 *
 * IPv4 part: one record for each of the first 16 entries of the system's IPv4 interface list,
 * from the last entry to the first, with the interface's name, hardware address, and one IPv4
 * node holding its address and netmask. Each failure prints one line on the debug channel:
 *   "trovik GetAdapterInfo_Inter_Posix OXA_CreateSocket Error 1"  (no socket)
 *   "trovik GetAdapterList_Inter_Posix ioctl error 1" and then
 *   "trovik GetAdapterInfo_Inter_Posix GetAdapterList_Inter_Posix Error 2"  (no interface list)
 *   "trovik GetAdapterInfo_Inter_Posix new Error 3"  (out of memory)
 *   "trovik GetAdapterInfo_Inter_Posix ioctl Error 4"  (no hardware address)
 *   "trovik GetAdapterInfo_Inter_Posix GetIpList_Inter_Posix Error 5"  (no address or netmask)
 *
 * IPv6 part: a routing netlink socket dumps the IPv6 links (up to 16 collected, with their
 * hardware addresses) and the IPv6 addresses (up to 16 collected). Every address goes to the
 * IPv6 list of the first adapter whose MAC equals the hardware address of the address's link;
 * links without such an adapter are skipped. The dump then prints
 * "loop[<rounds>] find <links> mac and <addresses> ip" straight to standard error, rounds being
 * the number of dump requests sent (2 unless one could not be sent). When the netlink socket
 * cannot be opened or bound the
 * IPv4 result stands and one line is printed on the debug channel:
 *   "trovik GetIPv6ToAdapterInfo_Inter_Posix error 0 socket,errno=<errno>"
 *   "trovik GetIPv6ToAdapterInfo_Inter_Posix error 1 bind,errno=<errno>"
 * and a request that cannot be sent ends the dump early with
 *   "trovik GetIPv6ToAdapterInfo_Inter_Posix error 2 sendto,errno=<errno>".
 * The socket is bound to the process id; when another socket of the process holds that port
 * (a concurrent call, for example) the kernel picks a free one instead.
 *
 * Time: every datagram of the dump is read whole, however large, so the call returns as soon
 * as the kernel has answered. Only a kernel that stays silent makes a receive wait, 3 seconds
 * at most.
 */
OXA_API int OXA_GetAdapterInfo(OXA_ADAPTER_INFO_T** list);

/**
 * As OXA_GetAdapterInfo, and sets *af from what the adapters carry: 101 (OXA_AF_DUAL) when
 * some adapter has an IPv4 list and some adapter has an IPv6 list, 2 when only IPv4 lists were
 * found, 10 when only IPv6 lists; *af stays as it was when neither was found. -1 with nothing
 * changed when list or af is null or OXA_GetAdapterInfo fails.
 */
OXA_API int OXA_GetAdapterInfoEx(OXA_ADAPTER_INFO_T** list, int* af);

/**
 * Frees every record of a list built by OXA_GetAdapterInfo together with all nodes of its four
 * lists. Null is accepted. Returns 0.
 */
OXA_API int OXA_FreeAdapterInfo(OXA_ADAPTER_INFO_T* list);

/**
 * Resolves node (a host name or address text) and service (a service name or port number)
 * with the system's getaddrinfo and stores the answers, copied into a new list, in *result;
 * the caller frees it with OXA_FreeAddressInfo. Either node or service may be null, not both.
 * hints may be null for the resolver's defaults (any family, any socket type). 0 on success;
 * -1 when result is null, when the resolver fails (its error code is not kept; errno is
 * meaningful only for a system failure) or when memory runs out (errno ENOMEM), with *result
 * unchanged and nothing left allocated.
 */
OXA_API int OXA_GetAddressInfo(const char* node, const char* service,
                               const OXA_ADDRESS_HINTS_T* hints, OXA_ADDRESS_INFO_T** result);

/** Frees every answer of a list and its canonical-name copy. Null is accepted. Returns 0. */
OXA_API int OXA_FreeAddressInfo(OXA_ADDRESS_INFO_T* list);

/**
 * Resolves a host name or address text into addresses, written to the caller's array.
 *
 * af selects what is asked for: 2 (IPv4), 10 (IPv6), 101 (OXA_AF_DUAL: both, in the resolver's
 * preferred order) or 102 (OXA_AF_DEFAULT: the value of g_Af). On entry *count is the number of
 * records addrs has room for; on success it is the number stored, at least 1, in the resolver's
 * order. Each address appears once per answer (the resolver is asked for stream sockets, so
 * an address is not repeated per socket type), with port 0 (set it with OXA_SetAddrPort) and
 * all unused bytes zero.
 *
 * 0 on success. -1 with nothing changed when name, addrs or count is null, *count is 0, af is
 * none of the four values, or the resolver finds no address (errno is meaningful only for a
 * system failure). Blocks as long as the system's resolver does; safe from any thread.
 */
OXA_API int OXA_GetAddressByName(const char* name, int af, OXA_ADDR_T* addrs, unsigned int* count);

/** 16-bit value from host to network byte order. */
OXA_API unsigned short OXA_Htons(unsigned short value);
/** 16-bit value from network to host byte order. */
OXA_API unsigned short OXA_Ntohs(unsigned short value);
/** 32-bit value from host to network byte order. */
OXA_API unsigned int OXA_Htonl(unsigned int value);
/** 32-bit value from network to host byte order. */
OXA_API unsigned int OXA_Ntohl(unsigned int value);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif /* OXA_NETINFO_H_ */
