// The process-wide table of bound sockets, indexed by descriptor and shared by all queues.
//
// An entry is written only with the owning worker's slot lock and both of the descriptor's
// side mutexes (CSocketOperation::m_sendMutex[fd], m_recvMutex[fd]) held, so a reader that
// holds any one of them sees a stable entry.
#ifndef OXA_SRC_AIO_SOCKET_TABLE_H_
#define OXA_SRC_AIO_SOCKET_TABLE_H_

#include "oxa_aio.h"

namespace oxa::internal {

// Descriptors 0..kMaxSockets-1 can be bound.
constexpr int kMaxSockets = 65536;

inline bool IsTableIndex(int fd) { return static_cast<unsigned int>(fd) < kMaxSockets; }

// The object bound to fd, or null. REQUIRES: IsTableIndex(fd).
CSocketOperation* LookupSocket(int fd);
// REQUIRES: IsTableIndex(fd); slot lock, m_sendMutex[fd] and m_recvMutex[fd] held.
void StoreSocket(int fd, CSocketOperation* op);

}  // namespace oxa::internal

#endif  // OXA_SRC_AIO_SOCKET_TABLE_H_
