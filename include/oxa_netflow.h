/** \file
 * liboxa: network-flow counters, the kernel's per-interface traffic totals from
 * "/proc/net/dev".
 *
 * The counters run from the interface's creation (or the last driver reset) and are read at
 * their full 64-bit width; traffic rates are the differences of two readings. Both functions
 * read the file once per call, take no lock and may be called from any thread.
 */
#ifndef OXA_NETFLOW_H_
#define OXA_NETFLOW_H_

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Room for an interface name with its terminating zero (the system's IFNAMSIZ). */
#define OXA_NETFLOW_NAME_SIZE 16

/**
 * The counters of one interface, in the order of the file's columns. 144 bytes on every
 * target, with no padding.
 */
typedef struct OXA_NETFLOW_DATA {
  char szName[OXA_NETFLOW_NAME_SIZE]; /**< interface name, zero-terminated */
  oxa_uint64 uRecvBytes;              /**< bytes received */
  oxa_uint64 uRecvPackets;            /**< packets received */
  oxa_uint64 uRecvErrors;             /**< receive errors */
  oxa_uint64 uRecvDropped;            /**< received packets dropped */
  oxa_uint64 uRecvFifo;               /**< receive FIFO overruns */
  oxa_uint64 uRecvFrame;              /**< receive framing errors */
  oxa_uint64 uRecvCompressed;         /**< compressed packets received */
  oxa_uint64 uRecvMulticast;          /**< multicast packets received */
  oxa_uint64 uSendBytes;              /**< bytes sent */
  oxa_uint64 uSendPackets;            /**< packets sent */
  oxa_uint64 uSendErrors;             /**< send errors */
  oxa_uint64 uSendDropped;            /**< packets dropped on sending */
  oxa_uint64 uSendFifo;               /**< send FIFO overruns */
  oxa_uint64 uSendCollisions;         /**< collisions */
  oxa_uint64 uSendCarrier;            /**< carrier losses */
  oxa_uint64 uSendCompressed;         /**< compressed packets sent */
} OXA_NETFLOW_DATA;

/**
 * Fills data with the counters of the interface called name (for example "lo" or "eth0").
 * 0; -1 when a pointer is null, when "/proc/net/dev" cannot be opened (errno from the open),
 * when it does not parse (errno EINVAL), or when no interface has that name (errno ENODEV).
 * data is changed only on success.
 */
OXA_API int OXA_GetNetWorkFlowData(const char* name, OXA_NETFLOW_DATA* data);

/**
 * Fills one record per interface, in the file's order. *size is in bytes: on entry the room at
 * records, on return the room needed (the number of interfaces times sizeof(OXA_NETFLOW_DATA)).
 * Returns 0 when every interface fit. Returns -1 when size is null, when the room is too small
 * or records is null (the needed size is stored: call again with it, and again should an
 * interface appear in between), when "/proc/net/dev" cannot be opened (errno from the open),
 * when it does not parse (errno EINVAL), or when memory runs out (errno ENOMEM); records is
 * changed only on success, *size only when the file was read.
 */
OXA_API int OXA_GetNetWorkFlowDataEx(OXA_NETFLOW_DATA* records, unsigned int* size);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif /* OXA_NETFLOW_H_ */
