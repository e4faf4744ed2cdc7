// The per-socket engine: request queues, pooled copies of outgoing data, the send-memory
// limit and the epoll registration that follows the queues.
//
// Lock order: m_sendMutex[fd], then m_recvMutex[fd], then the object's own mutex_. Push and
// Pop take their side's mutex again (callers already hold it; the mutexes are recursive).
// ChangeSocketOpr(SOCKET_OPR_DEL) reads both queues, so it takes both side mutexes before
// mutex_; every other change runs under mutex_ alone, inside its side's mutex.
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <new>

#include "oxa_aio.h"
#include "oxa_time.h"

#include "aio/socket_queues.h"
#include "aio/socket_table.h"
#include "frame/load_order.h"
#include "frame/scoped_lock.h"
#include "frame/socket_address.h"

using oxa::internal::CDataMemoryPool;
using oxa::internal::kMaxSockets;
using oxa::internal::SocketQueues;

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(IO_DATA) == 16 * 4, "a request record is sixteen 32-bit words");
static_assert(offsetof(IO_DATA, addr_copy) == 7 * 4, "address copy is the eighth field");
static_assert(sizeof(OXA_ADDR_T) == 7 * 4, "the address copy takes seven words");
static_assert(offsetof(IO_DATA, callback) == 14 * 4, "callback follows the address copy");
static_assert(offsetof(IO_DATA, context) == 15 * 4, "context is the last word");
#endif

// ---- Load-time statics ----------------------------------------------------------------

OXA_Mutex CSocketOperation::m_gUuidMutex OXA_LOAD_AT(OXA_LOAD_SOCKET_ENGINE);
unsigned int CSocketOperation::m_gUuid = 0;
OXA_Mutex CSocketOperation::m_sendMutex[kMaxSockets] OXA_LOAD_AT(OXA_LOAD_SOCKET_ENGINE);
OXA_Mutex CSocketOperation::m_recvMutex[kMaxSockets] OXA_LOAD_AT(OXA_LOAD_SOCKET_ENGINE);

extern "C" {
OXA_API int g_max_socket_send_dataMemory = -1;
}

namespace {

using Hold = oxa::internal::ScopedLock<OXA_Mutex>;

constexpr int kChunkBytes = CDataMemoryPool::kLargestClass;
constexpr size_t kMaxQueuedRequests = 3840;
constexpr size_t kInitialQueueDepth = 64;
constexpr unsigned int kAlwaysReported = EPOLLERR | EPOLLHUP;
constexpr int kBadLength = -4;

// A backlog of `backlog` queued sends arms a trim; once the queue has drained to `drained`,
// the next send of the same kind gives the data pools' free blocks back.
struct TrimRule {
  size_t backlog;
  size_t drained;
};
constexpr TrimRule kSendTrim = {2048, 512};
constexpr TrimRule kSendToTrim = {10240, 2560};

constexpr char kOverLimitFormat[] = "over max data memory limit! m_socketFd{%d}\r\n";
constexpr char kTrimMessage[] = "trim boost pool!\r\n";
constexpr char kNoBlockMessage[] = "PushSendRequest 3\n";

unsigned int NextSerial() {
  Hold hold(CSocketOperation::m_gUuidMutex);
  return CSocketOperation::m_gUuid++;
}

SocketQueues* NewQueues() {
  auto* queues = new (std::nothrow) SocketQueues;
  if (queues == nullptr) return nullptr;
  if (!queues->send_queue.Reserve(kInitialQueueDepth) ||
      !queues->recv_queue.Reserve(kInitialQueueDepth)) {
    delete queues;
    errno = ENOMEM;
    return nullptr;
  }
  return queues;
}

int EpollControl(int epfd, int op, int fd, unsigned int events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  return epoll_ctl(epfd, op, fd, &event);
}

// REQUIRES: m_sendMutex[fd] held.
void ApplyTrimRule(OXA_IO_TYPE type, SocketQueues* queues) {
  const TrimRule* rule = type == OXA_IO_SEND     ? &kSendTrim
                         : type == OXA_IO_SENDTO ? &kSendToTrim
                                                 : nullptr;
  if (rule == nullptr) return;
  const size_t queued = queues->send_queue.size();
  if (queues->trim_flag != 0 && queued <= rule->drained) {
    fputs(kTrimMessage, stderr);
    queues->data.Trim();
    queues->trim_flag = 0;
  } else if (queued >= rule->backlog) {
    queues->trim_flag = 1;
  }
}

// Gives a send-side record and its data block (if any) back.
// REQUIRES: m_sendMutex[fd] held.
void ReleaseSendRecord(SocketQueues* queues, IO_DATA* req) {
  if (req->length > 0) {
    queues->data.Give(req->buffer, req->length);
    queues->send_bytes_in_use -= CDataMemoryPool::ClassBytes(req->length);
  }
  queues->send_records.free(req);
}

}  // namespace

// ---- Construction ---------------------------------------------------------------------

CSocketOperation::CSocketOperation(int fd, int epfd)
    : events_(0),
      socket_fd_(fd),
      epoll_fd_(epfd),
      serial_(NextSerial()),
      create_tick_(OXA_GetTimeTick()),
      queues_(nullptr) {
  if (fd < 0 || fd >= kMaxSockets) return;  // no per-descriptor mutex to guard it
  queues_ = NewQueues();
  if (queues_ != nullptr) ChangeSocketOpr(SOCKET_OPR_ADD);
}

CSocketOperation::~CSocketOperation() {
  if (queues_ == nullptr) return;
  Hold send(m_sendMutex[socket_fd_]);
  Hold recv(m_recvMutex[socket_fd_]);
  // Queued requests are dropped silently; their records and blocks go with the pools.
  while (!queues_->send_queue.empty())
    queues_->send_queue.pop_front();
  while (!queues_->recv_queue.empty())
    queues_->recv_queue.pop_front();
  ChangeSocketOpr(SOCKET_OPR_DEL);
  delete queues_;
  queues_ = nullptr;
}

bool CSocketOperation::IsValid() const { return queues_ != nullptr; }
int CSocketOperation::GetSocketFd() const { return socket_fd_; }
int CSocketOperation::GetEpollFd() const { return epoll_fd_; }
unsigned int CSocketOperation::GetSerial() const { return serial_; }
unsigned int CSocketOperation::GetCreateTick() const { return create_tick_; }

// ---- Registration ---------------------------------------------------------------------

int CSocketOperation::ChangeSocketOpr(__SOCKET_OPR opr) {
  if (queues_ == nullptr || opr < SOCKET_OPR_ADD || opr > SOCKET_OPR_DEL_WRITE) return OXA_ERROR;
  if (opr == SOCKET_OPR_DEL) {
    Hold send(m_sendMutex[socket_fd_]);
    Hold recv(m_recvMutex[socket_fd_]);
    Hold own(mutex_);
    if (events_ == 0 || !queues_->send_queue.empty() || !queues_->recv_queue.empty()) return 0;
    if (EpollControl(epoll_fd_, EPOLL_CTL_DEL, socket_fd_, 0) != 0) return OXA_ERROR;
    events_ = 0;
    return 0;
  }
  Hold own(mutex_);
  const bool registered = events_ != 0;
  const unsigned int base = registered ? events_ : kAlwaysReported;
  unsigned int wanted;
  switch (opr) {
    case SOCKET_OPR_ADD:
      wanted = kAlwaysReported;
      break;
    case SOCKET_OPR_ADD_READ:
      wanted = base | EPOLLIN;
      break;
    case SOCKET_OPR_ADD_WRITE:
      wanted = base | EPOLLOUT;
      break;
    case SOCKET_OPR_DEL_READ:
      wanted = events_ & ~static_cast<unsigned int>(EPOLLIN);
      break;
    default:  // SOCKET_OPR_DEL_WRITE
      wanted = events_ & ~static_cast<unsigned int>(EPOLLOUT);
      break;
  }
  // Adding an interest registers the descriptor first if it is not registered yet.
  const bool adds = opr == SOCKET_OPR_ADD ||
                    (!registered && (opr == SOCKET_OPR_ADD_READ || opr == SOCKET_OPR_ADD_WRITE));
  // Already so: the system call would change nothing. (Unregistered, it fails as it must.)
  if (registered && !adds && wanted == events_) return 0;
  const int op = adds ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
  if (EpollControl(epoll_fd_, op, socket_fd_, wanted) != 0) return OXA_ERROR;
  events_ = wanted;
  return 0;
}

// ---- Queue heads ----------------------------------------------------------------------

IO_DATA* CSocketOperation::FrontSendRequest() {
  if (queues_ == nullptr) return nullptr;
  Hold hold(m_sendMutex[socket_fd_]);
  return queues_->send_queue.front();
}

IO_DATA* CSocketOperation::FrontRecvRequest() {
  if (queues_ == nullptr) return nullptr;
  Hold hold(m_recvMutex[socket_fd_]);
  return queues_->recv_queue.front();
}

void CSocketOperation::PopSendRequest() {
  if (queues_ == nullptr) return;
  Hold hold(m_sendMutex[socket_fd_]);
  if (queues_->send_queue.empty()) return;
  ReleaseSendRecord(queues_, queues_->send_queue.pop_front());
  if (queues_->send_queue.empty()) ChangeSocketOpr(SOCKET_OPR_DEL_WRITE);
}

void CSocketOperation::PopRecvRequest() {
  if (queues_ == nullptr) return;
  Hold hold(m_recvMutex[socket_fd_]);
  if (queues_->recv_queue.empty()) return;
  queues_->recv_records.free(queues_->recv_queue.pop_front());
  if (queues_->recv_queue.empty()) ChangeSocketOpr(SOCKET_OPR_DEL_READ);
}

// ---- Send side ------------------------------------------------------------------------

int CSocketOperation::PushSendRequest(OXA_IO_TYPE type, void* data, int len, void* context,
                                      OXA_ADDR_T* addr, OXA_AIO_CALLBACK cb) {
  if (len < 1 || data == nullptr || (type == OXA_IO_CONNECT && addr == nullptr)) return kBadLength;
  if (queues_ == nullptr) return -6;
  Hold hold(m_sendMutex[socket_fd_]);
  const int configured = __atomic_load_n(&g_max_socket_send_dataMemory, __ATOMIC_RELAXED);
  if (configured > 0) queues_->send_memory_limit = configured;
  // Checked before the new data counts, so one request may pass the limit.
  if (queues_->send_bytes_in_use > queues_->send_memory_limit) {
    fprintf(stderr, kOverLimitFormat, socket_fd_);
    return -5;
  }
  ApplyTrimRule(type, queues_);

  const char* rest = static_cast<const char*>(data);
  for (int left = len; left > 0;) {
    const int chunk = left < kChunkBytes ? left : kChunkBytes;
    auto* req = static_cast<IO_DATA*>(queues_->send_records.malloc());
    if (req == nullptr) return -6;
    void* block = queues_->data.Take(chunk);
    if (block == nullptr) {
      queues_->send_records.free(req);
      fputs(kNoBlockMessage, stderr);
      return -6;  // chunks queued before stay queued
    }
    memcpy(block, rest, static_cast<size_t>(chunk));
    memset(req, 0, sizeof *req);
    req->fd = socket_fd_;
    req->type = type;
    req->buffer = block;
    req->length = chunk;
    if (addr != nullptr) {
      req->addr_copy = *addr;
      req->addr = &req->addr_copy;
    }
    req->context = context;
    req->callback = cb;
    queues_->send_bytes_in_use += CDataMemoryPool::ClassBytes(chunk);
    const bool was_empty = queues_->send_queue.empty();
    if (!queues_->send_queue.push_back(req)) {
      ReleaseSendRecord(queues_, req);
      return -6;
    }
    if (was_empty) ChangeSocketOpr(SOCKET_OPR_ADD_WRITE);
    rest += chunk;
    left -= chunk;
  }
  return 0;
}

int CSocketOperation::PushTCPSendRequest(void* data, int len, void* context, OXA_AIO_CALLBACK cb) {
  return PushSendRequest(OXA_IO_SEND, data, len, context, nullptr, cb);
}

int CSocketOperation::PushUDPSendRequest(void* data, int len, void* context, OXA_ADDR_T* to,
                                         OXA_AIO_CALLBACK cb) {
  return PushSendRequest(OXA_IO_SENDTO, data, len, context, to, cb);
}

int CSocketOperation::PushConnectRequest(void* context, OXA_ADDR_T* to, OXA_AIO_CALLBACK cb) {
  if (queues_ == nullptr || to == nullptr) return OXA_ERROR;
  Hold hold(m_sendMutex[socket_fd_]);
  if (queues_->send_queue.size() >= kMaxQueuedRequests) return OXA_ERROR;
  auto* req = static_cast<IO_DATA*>(queues_->send_records.malloc());
  if (req == nullptr) return OXA_ERROR;
  memset(req, 0, sizeof *req);
  req->fd = socket_fd_;
  req->type = OXA_IO_CONNECT;
  req->context = context;
  req->callback = cb;
  // Connected at once or in progress: either way the outcome is read when it turns writable.
  if (connect(socket_fd_, &to->sa, oxa::internal::SystemAddrLen(to)) != 0 && errno != EAGAIN &&
      errno != EINPROGRESS) {
    queues_->send_records.free(req);  // errno from connect
    return OXA_ERROR;
  }
  const bool was_empty = queues_->send_queue.empty();
  if (!queues_->send_queue.push_back(req)) {
    queues_->send_records.free(req);
    errno = ENOMEM;
    return OXA_ERROR;
  }
  if (was_empty) ChangeSocketOpr(SOCKET_OPR_ADD_WRITE);
  return 0;
}

// ---- Receive side ---------------------------------------------------------------------

int CSocketOperation::PushRecvRequest(OXA_IO_TYPE type, void* buf, int len, void* context,
                                      OXA_ADDR_T* addr, OXA_AIO_CALLBACK cb) {
  // A negative length would make the worker receive far past the caller's buffer.
  if (len < 0) return kBadLength;
  if (queues_ == nullptr) return OXA_ERROR;
  Hold hold(m_recvMutex[socket_fd_]);
  if (queues_->recv_queue.size() >= kMaxQueuedRequests) return OXA_ERROR;
  auto* req = static_cast<IO_DATA*>(queues_->recv_records.malloc());
  if (req == nullptr) return OXA_ERROR;
  memset(req, 0, sizeof *req);
  req->fd = socket_fd_;
  req->type = type;
  req->buffer = buf;
  req->length = len;
  if (type == OXA_IO_RECVFROM || type == OXA_IO_ACCEPT) {
    req->addr = addr;  // the result is written into the caller's record
  } else if (addr != nullptr) {
    req->addr_copy = *addr;
    req->addr = &req->addr_copy;
  }
  req->context = context;
  req->callback = cb;
  const bool was_empty = queues_->recv_queue.empty();
  if (!queues_->recv_queue.push_back(req)) {
    queues_->recv_records.free(req);
    errno = ENOMEM;
    return OXA_ERROR;
  }
  if (was_empty) ChangeSocketOpr(SOCKET_OPR_ADD_READ);
  return 0;
}

int CSocketOperation::PushTCPRecvRequest(void* buf, int len, void* context, OXA_AIO_CALLBACK cb) {
  return PushRecvRequest(OXA_IO_RECV, buf, len, context, nullptr, cb);
}

int CSocketOperation::PushUDPRecvRequest(void* buf, int len, void* context, OXA_ADDR_T* from,
                                         OXA_AIO_CALLBACK cb) {
  return PushRecvRequest(OXA_IO_RECVFROM, buf, len, context, from, cb);
}

int CSocketOperation::PushAcceptRequest(void* context, OXA_ADDR_T* peer, OXA_AIO_CALLBACK cb) {
  return PushRecvRequest(OXA_IO_ACCEPT, nullptr, 0, context, peer, cb);
}
