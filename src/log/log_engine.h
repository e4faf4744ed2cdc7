// The state and the writer thread behind the log service singleton.
#ifndef OXA_SRC_LOG_LOG_ENGINE_H_
#define OXA_SRC_LOG_LOG_ENGINE_H_

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "oxa_base.h"
#include "oxa_log.h"

#include "log/log_file_sink.h"
#include "log/staging_queue.h"

namespace oxa::internal {

// Lock order: service_mu_, then queue_mu_ or the file sink's mutex (never both at once).
// The writer thread takes queue_mu_ and the sink's mutex one after the other, never
// service_mu_, so ServiceStop may join it while holding service_mu_.
class LogEngine {
 public:
  LogEngine() = default;
  ~LogEngine() = default;
  LogEngine(const LogEngine&) = delete;
  LogEngine& operator=(const LogEngine&) = delete;

  int ServiceStart();
  int ServiceStop(bool wait);
  // The stop at process exit: lines not yet taken are dropped, and the writer is given a
  // short grace to finish the batch in hand. A writer stuck in a blocked write is left
  // running with everything it uses, since the process is ending anyway.
  void StopAtExit();
  int PushData(const char* line, uint32_t length);
  // Returns once every line queued before the call has been written out (or the service
  // stopped meanwhile). Returns at once when the service is not running.
  void Flush();
  // Sets or clears the flag that keeps the service from starting.
  void SetStopped(bool stopped);

  bool started() const { return started_.load(std::memory_order_acquire); }
  int level() const { return level_.load(std::memory_order_relaxed); }
  void set_level(int level) { level_.store(level, std::memory_order_relaxed); }
  bool AnyTargetOn() const { return console_on_ || debug_on_ || files_.on(); }

  std::atomic<bool> console_on_{false};
  std::atomic<bool> debug_on_{false};
  LogFileSink files_;

 private:
  void SignalQuit(bool drop_untaken);
  void JoinWriterAndRelease();
  static void* WriteLogProc(void* engine);
  void WriterLoop();
  int64_t NextBatch(std::unique_lock<std::mutex>& hold);
  // Sends a batch to every target that is on, each target in queue order.
  void Deliver(const LogLine* lines, size_t count);

  std::atomic<bool> started_{false};  // Written under service_mu_ and queue_mu_.
  std::atomic<int> level_{OXA_LOG_INF};

  std::mutex service_mu_;
  bool stopped_ = false;                    // Guarded by service_mu_.
  OXA_HANDLE writer_ = OXA_INVALID_HANDLE;  // Guarded by service_mu_.

  std::mutex queue_mu_;
  std::condition_variable wake_;     // the writer waits here when the queue is empty
  StagingQueue queue_;               // Guarded by queue_mu_.
  bool quit_ = false;                // Guarded by queue_mu_.
  bool writer_idle_ = false;         // Guarded by queue_mu_: the writer waits on wake_.
  std::condition_variable flushed_;  // Flush waits here for lines to be released
  int flush_waiters_ = 0;            // Guarded by queue_mu_.
  bool writer_done_ = false;         // Guarded by queue_mu_: the writer left its loop.

  LogLine batch_[LogFileSink::kMaxBatch];  // the writer's own
};

// The engine behind GetLogService(), built on first use and never destroyed: OXA_Fini may
// run from another static object's destructor at exit, after a function-local static would
// already be gone. A load-time object calls StopAtExit instead.
LogEngine& Engine();

}  // namespace oxa::internal

#endif  // OXA_SRC_LOG_LOG_ENGINE_H_
