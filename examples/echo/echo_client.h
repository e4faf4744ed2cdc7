// A load client on a completion queue: `clients` connections, each keeping `in_flight`
// messages on their way (sent, echo not yet complete) until the run's duration is over.
//
// Every connection is a small state machine driven by its callbacks, which all run on the
// worker that owns its socket: connect -> queue `in_flight` messages and a receive of the
// oldest one's echo -> receives complete piece by piece, each piece is compared with what
// was sent -> the echo is whole: its round trip goes into the latency histogram, the next
// message is queued and the next echo awaited. Message `seq` of connection `id` starts with
// id and seq and goes on with bytes of a random table at an offset derived from both, so a
// byte that went to the wrong connection or came back out of order is caught.
//
// Everything is bounded: new messages stop at the deadline, and the run gives up a fixed
// grace period after it (a lost message, a stuck connection) and reports a time-out.
//
// Header-only so that the benchmark can drive other servers with the same client.
#ifndef OXA_EXAMPLES_ECHO_ECHO_CLIENT_H_
#define OXA_EXAMPLES_ECHO_ECHO_CLIENT_H_

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "oxa_addr.h"
#include "oxa_aio.h"
#include "oxa_frame.h"
#include "oxa_socket.h"
#include "oxa_time.h"

#include "worker_priority.h"

namespace oxa_echo {

constexpr int kMaxClients = 4096;
constexpr int kMaxMessageBytes = 1 << 20;
constexpr unsigned int kGraceMs = 10000;  // how long after the deadline stragglers may take
constexpr int kMaxInFlight = 64;

// Round-trip times in buckets of 1/16 octave (about 4.4 % wide) from 1 us to about 70 s:
// fixed memory, no allocation in a callback, and percentiles good to a bucket.
class LatencyHistogram {
 public:
  static constexpr int kPerOctave = 16;
  static constexpr int kBuckets = 26 * kPerOctave;

  void Add(double micros) {
    const int b = micros <= 1 ? 0 : static_cast<int>(std::log2(micros) * kPerOctave);
    ++counts_[b < kBuckets ? b : kBuckets - 1];
    ++total_;
  }
  void Merge(const LatencyHistogram& other) {
    for (int i = 0; i < kBuckets; ++i)
      counts_[i] += other.counts_[i];
    total_ += other.total_;
  }
  // The upper edge of the bucket that holds the given fraction of samples, in microseconds;
  // 0 without samples.
  double Percentile(double fraction) const {
    if (total_ == 0) return 0;
    const uint64_t rank = static_cast<uint64_t>(std::ceil(fraction * total_));
    uint64_t seen = 0;
    for (int i = 0; i < kBuckets; ++i) {
      seen += counts_[i];
      if (seen >= rank) return std::exp2((i + 1) / static_cast<double>(kPerOctave));
    }
    return std::exp2(kBuckets / static_cast<double>(kPerOctave));
  }

 private:
  uint64_t counts_[kBuckets] = {};
  uint64_t total_ = 0;
};

inline double NowMicros() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1e6 + now.tv_nsec / 1e3;
}

struct LoadResult {
  bool ok = false;
  int clients = 0;
  int message_bytes = 0;
  uint64_t round_trips = 0;
  uint64_t fewest_round_trips = 0;  // of any one connection: a starved one shows here
  uint64_t verified_bytes = 0;      // bytes that came back and matched, whole messages or not
  double seconds = 0;               // from the first connect to the last echo
  std::string error;                // the first failure, empty when ok
  LatencyHistogram latency;         // round trips of whole messages, send queued to echo complete

  double RoundTripsPerSecond() const { return seconds > 0 ? round_trips / seconds : 0; }
  // Payload each way, in 10^6 bytes per second.
  double MegabytesPerSecond() const {
    return seconds > 0 ? round_trips * static_cast<double>(message_bytes) / seconds / 1e6 : 0;
  }
};

class LoadRun {
 public:
  // Runs the load against `server` on `queue` (made by the caller; sockets are bound to it
  // and unbound again before this returns). Never throws; a failure is in the result.
  static LoadResult Run(void* queue, const OXA_ADDR_T& server, int clients, int message_bytes,
                        double seconds, int in_flight = 1) {
    LoadResult result;
    result.clients = clients;
    result.message_bytes = message_bytes;
    if (clients < 1 || clients > kMaxClients || message_bytes < 1 ||
        message_bytes > kMaxMessageBytes || !(seconds > 0) || in_flight < 1 ||
        in_flight > kMaxInFlight) {
      result.error = "bad load parameters";
      return result;
    }
    try {
      LoadRun run(queue, server, clients, message_bytes, seconds, in_flight);
      run.Execute(&result);
    } catch (const std::bad_alloc&) {
      result.ok = false;
      result.error = "out of memory";
    }
    return result;
  }

 private:
  static constexpr int kHeaderBytes = 8;      // connection id and sequence number
  static constexpr uint32_t kOffsets = 4096;  // distinct table offsets

  struct Connection {
    LoadRun* run = nullptr;
    int id = 0;
    int fd = -1;
    bool bound = false;
    uint32_t next_send = 0;  // sequence number of the next message to send
    uint32_t seq = 0;        // sequence number of the echo being received
    int got = 0;             // bytes of the current echo received so far
    uint64_t round_trips = 0;
    uint64_t verified = 0;
    double sent_at[kMaxInFlight] = {};  // by seq % in_flight
    LatencyHistogram latency;
    std::unique_ptr<char[]> sent;  // the message being queued, or the echo awaited
    std::unique_ptr<char[]> echo;
    std::unique_ptr<char[]> expect;
  };

  LoadRun(void* queue, const OXA_ADDR_T& server, int clients, int message_bytes, double seconds,
          int in_flight)
      : queue_(queue),
        server_(server),
        size_(message_bytes),
        in_flight_(in_flight),
        duration_ms_(static_cast<uint64_t>(seconds * 1000 + 0.5)),
        table_(new char[message_bytes + kOffsets]),
        connections_(clients) {
    // xorshift32: any fixed sequence does; what matters is that neighbours differ.
    uint32_t x = 0x9E3779B9u;
    for (int i = 0; i < message_bytes + static_cast<int>(kOffsets); ++i) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      table_[i] = static_cast<char>(x >> 24);
    }
    for (int i = 0; i < clients; ++i) {
      Connection& c = connections_[i];
      c.run = this;
      c.id = i;
      c.sent.reset(new char[message_bytes]);
      c.echo.reset(new char[message_bytes]);
      c.expect.reset(new char[message_bytes]);
    }
  }

  ~LoadRun() {
    for (Connection& c : connections_) {
      // Unbinding waits for the worker's current batch and drops what is still queued, so no
      // callback touches c or its buffers afterwards.
      if (c.bound) OXA_AsyncIO_UnBindIOHandleEx(c.fd, queue_);
      if (c.fd != -1) OXA_CloseSocket(c.fd, 0);
    }
  }

  LoadRun(const LoadRun&) = delete;
  LoadRun& operator=(const LoadRun&) = delete;

  void Execute(LoadResult* result) {
    // The thread that starts the connections must not wait behind busy workers.
    WorkerPriority priority;
    start_ms_ = OXA_GetTimeTick64();
    deadline_ms_.store(start_ms_ + duration_ms_);
    size_t started = 0;
    while (started < connections_.size() && Connect(&connections_[started]))
      ++started;
    if (started < connections_.size()) {
      // The rest never start; they count as finished, and the started ones stop soon.
      std::lock_guard<std::mutex> hold(mutex_);
      deadline_ms_.store(0);
      finished_ += connections_.size() - started;
      if (finished_ == connections_.size()) done_cv_.notify_all();
    }
    bool in_time = false;
    {
      std::unique_lock<std::mutex> hold(mutex_);
      in_time = done_cv_.wait_for(hold, std::chrono::milliseconds(duration_ms_ + kGraceMs),
                                  [this] { return finished_ == connections_.size(); });
      if (!in_time) DescribeStragglers();
      result->error = error_;
      result->seconds =
          (last_finish_ms_ > start_ms_ ? last_finish_ms_ : OXA_GetTimeTick64()) - start_ms_;
    }
    result->seconds /= 1000.0;
    // After a time-out callbacks may still be running: unbinding ends them before the counters
    // are read. After success every connection is finished and nothing is queued any more.
    if (!in_time) {
      for (Connection& c : connections_) {
        if (c.bound) OXA_AsyncIO_UnBindIOHandleEx(c.fd, queue_);
        c.bound = false;
      }
    }
    result->fewest_round_trips = connections_.front().round_trips;
    for (const Connection& c : connections_) {
      if (c.round_trips < result->fewest_round_trips) result->fewest_round_trips = c.round_trips;
      result->round_trips += c.round_trips;
      result->verified_bytes += c.verified;
      result->latency.Merge(c.latency);
    }
    result->ok = result->error.empty();
  }

  bool Connect(Connection* c) {
    char what[96];
    c->fd = OXA_CreateSocket(OXA_GetAddrType(&server_), SOCK_STREAM, 0);
    if (c->fd == -1) {
      std::snprintf(what, sizeof what, "connection %d: socket failed: %s", c->id,
                    OXA_GetSystemErrorString(errno));
      return SetupFailed(what);
    }
    OXA_SetNoDelay(c->fd, 1);  // chunks of a message go out without waiting for acks
    if (OXA_AsyncIO_BindIOHandleToQueueEx(c->fd, queue_) != 0) {
      std::snprintf(what, sizeof what, "connection %d: cannot bind descriptor %d to the queue",
                    c->id, c->fd);
      return SetupFailed(what);
    }
    c->bound = true;
    if (OXA_AsyncIO_ConnectEx(c->fd, &server_, nullptr, 0, c, &LoadRun::OnConnected) != 0) {
      std::snprintf(what, sizeof what, "connection %d: connect refused at once: %s", c->id,
                    OXA_GetSystemErrorString(errno));
      return SetupFailed(what);
    }
    return true;
  }

  bool SetupFailed(const char* what) {
    std::lock_guard<std::mutex> hold(mutex_);
    KeepFirstError(what);
    return false;
  }

  // REQUIRES: mutex_ held. A fixed buffer: callbacks run on the library's workers, where a
  // failed allocation must not throw.
  void KeepFirstError(const char* what) {
    if (error_[0] == '\0') std::snprintf(error_, sizeof error_, "%s", what);
  }

  static void OnConnected(unsigned long error, unsigned long /*bytes*/, void* context) {
    auto* c = static_cast<Connection*>(context);
    if (error != 0) {
      char what[96];
      std::snprintf(what, sizeof what, "connection %d: connect failed: %s", c->id,
                    OXA_GetSystemErrorString(static_cast<int>(error)));
      c->run->Finish(c, what);
      return;
    }
    LoadRun* run = c->run;
    // The receive is queued first so that the echo has a place to land.
    if (!run->AwaitEcho(c)) return;
    for (int i = 0; i < run->in_flight_; ++i) {
      if (!run->SendOne(c)) return;
    }
    if (c->next_send == 0) run->Finish(c, nullptr);  // the run was over before it began
  }

  // Message seq of connection id into out: the header, then the table from an offset of its
  // own.
  void Fill(const Connection& c, uint32_t seq, char* out) const {
    char header[kHeaderBytes];
    const uint32_t id = static_cast<uint32_t>(c.id);
    memcpy(header, &id, 4);
    memcpy(header + 4, &seq, 4);
    const int head = size_ < kHeaderBytes ? size_ : kHeaderBytes;
    memcpy(out, header, head);
    const uint32_t offset = (id * 7919u + seq * 104729u) % kOffsets;
    memcpy(out + head, table_.get() + offset + head, size_ - head);
  }

  // Queues the next message unless the run is over. The send needs no callback: the echo is
  // the proof of delivery, and a failed send fails the receive too. False when refused.
  bool SendOne(Connection* c) {
    if (OXA_GetTimeTick64() >= deadline_ms_.load(std::memory_order_relaxed)) return true;
    Fill(*c, c->next_send, c->sent.get());
    c->sent_at[c->next_send % in_flight_] = NowMicros();
    const int rc = OXA_AsyncIO_SendEx(c->fd, c->sent.get(), size_, nullptr, nullptr);
    if (rc != 0) return Refused(c, rc);
    ++c->next_send;
    return true;
  }

  // Queues the receive of echo c->seq. False when refused.
  bool AwaitEcho(Connection* c) {
    Fill(*c, c->seq, c->expect.get());
    c->got = 0;
    const int rc = OXA_AsyncIO_RecvEx(c->fd, c->echo.get(), size_, c, &LoadRun::OnEcho);
    return rc == 0 || Refused(c, rc);
  }

  bool Refused(Connection* c, int rc) {
    char what[96];
    std::snprintf(what, sizeof what, "connection %d: request refused (%d)", c->id, rc);
    Finish(c, what);
    return false;
  }

  // The echo c->seq is whole: the next message goes out, and the next echo is awaited while
  // any is on its way.
  void EchoComplete(Connection* c) {
    c->latency.Add(NowMicros() - c->sent_at[c->seq % in_flight_]);
    ++c->round_trips;
    ++c->seq;
    if (!SendOne(c)) return;
    if (c->seq == c->next_send) {
      Finish(c, nullptr);
      return;
    }
    AwaitEcho(c);
  }

  static void OnEcho(unsigned long error, unsigned long bytes, void* context) {
    auto* c = static_cast<Connection*>(context);
    LoadRun* run = c->run;
    char what[160];
    if (bytes == 0) {  // a close reports whatever errno held, so the text says both
      std::snprintf(what, sizeof what,
                    "connection %d message %u: receive ended after %d of %d bytes (%s)", c->id,
                    c->seq, c->got, run->size_,
                    error != 0 ? OXA_GetSystemErrorString(static_cast<int>(error)) : "peer closed");
      run->Finish(c, what);
      return;
    }
    // A receive is never longer than what it asked for, and success reports error 0.
    const int n = static_cast<int>(bytes);
    const char* want = c->expect.get() + c->got;
    const char* have = c->echo.get() + c->got;
    if (memcmp(want, have, n) != 0) {
      int at = 0;
      while (want[at] == have[at])
        ++at;
      std::snprintf(what, sizeof what,
                    "connection %d message %u: byte %d of %d is 0x%02x, expected 0x%02x", c->id,
                    c->seq, c->got + at, run->size_, static_cast<unsigned char>(have[at]),
                    static_cast<unsigned char>(want[at]));
      run->Finish(c, what);
      return;
    }
    c->got += n;
    c->verified += static_cast<uint64_t>(n);
    if (c->got < run->size_) {
      if (OXA_AsyncIO_RecvEx(c->fd, c->echo.get() + c->got, run->size_ - c->got, c,
                             &LoadRun::OnEcho) != 0) {
        std::snprintf(what, sizeof what, "connection %d: receive refused", c->id);
        run->Finish(c, what);
      }
      return;
    }
    run->EchoComplete(c);
  }

  // The connection is done, cleanly (what null) or with the failure `what`.
  void Finish(Connection* /*c*/, const char* what) {
    std::lock_guard<std::mutex> hold(mutex_);
    if (what != nullptr) KeepFirstError(what);
    if (what != nullptr) deadline_ms_.store(0);  // one failure ends the run: the rest stop soon
    last_finish_ms_ = OXA_GetTimeTick64();
    if (++finished_ == connections_.size()) done_cv_.notify_all();
  }

  // REQUIRES: mutex_ held.
  void DescribeStragglers() {
    const size_t waiting = connections_.size() - finished_;
    char text[160];
    std::snprintf(text, sizeof text,
                  "time-out: %zu of %zu connections still waiting %u ms after "
                  "the end of the run",
                  waiting, connections_.size(), kGraceMs);
    KeepFirstError(text);
  }

  void* queue_;
  OXA_ADDR_T server_;
  int size_;
  int in_flight_;
  uint64_t duration_ms_;
  std::unique_ptr<char[]> table_;
  std::vector<Connection> connections_;
  uint64_t start_ms_ = 0;

  std::mutex mutex_;
  std::condition_variable done_cv_;
  std::atomic<uint64_t> deadline_ms_{0};  // no new message from then on
  size_t finished_ = 0;                   // guarded by mutex_
  uint64_t last_finish_ms_ = 0;
  char error_[192] = {};  // the first failure; guarded by mutex_
};

}  // namespace oxa_echo

#endif  // OXA_EXAMPLES_ECHO_ECHO_CLIENT_H_
