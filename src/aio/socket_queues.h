// The state of one bound socket behind CSocketOperation: request records, data blocks, the
// two request queues and the send-memory accounting. Kept out of the public class so that
// the public header does not depend on Boost.
//
// Guarded by CSocketOperation::m_sendMutex[fd]: send_records, data, send_bytes_in_use,
// send_queue, trim_flag, send_memory_limit. Guarded by m_recvMutex[fd]: recv_records,
// recv_queue.
#ifndef OXA_SRC_AIO_SOCKET_QUEUES_H_
#define OXA_SRC_AIO_SOCKET_QUEUES_H_

#include <stdint.h>

#include "oxa_aio.h"

#include "aio/data_memory_pool.h"
#include "aio/request_ring.h"

namespace oxa::internal {

// Built-in per-socket limit of pooled send data.
constexpr int kDefaultSendMemoryLimit = 33554432;

class SocketQueues {
 public:
  SocketQueues()
      : recv_records(sizeof(IO_DATA), kPoolGrowthChunks),
        send_records(sizeof(IO_DATA), kPoolGrowthChunks) {}
  ~SocketQueues() = default;  // the pools free every block; queued records die with them
  SocketQueues(const SocketQueues&) = delete;
  SocketQueues& operator=(const SocketQueues&) = delete;

  RecordPool recv_records;
  RecordPool send_records;
  CDataMemoryPool data;
  int64_t send_bytes_in_use = 0;  // in block sizes, not data bytes
  RequestRing send_queue;
  RequestRing recv_queue;
  int trim_flag = 0;
  int send_memory_limit = kDefaultSendMemoryLimit;
};

}  // namespace oxa::internal

#endif  // OXA_SRC_AIO_SOCKET_QUEUES_H_
