#include "log/log_engine.h"

#include <pthread.h>
#include <stdio.h>

#include <chrono>

#include "oxa_frame.h"
#include "oxa_thread.h"

namespace oxa::internal {
namespace {

constexpr unsigned int kWriterStackBytes = 0x20000;
// The writer looks at an empty queue again at least this often; a line queued while it
// waits wakes it at once.
constexpr std::chrono::milliseconds kIdlePoll(5);
// How long the exit waits for the writer to finish the batch in hand.
constexpr std::chrono::seconds kExitGrace(2);

LogEngine* g_engine = nullptr;

// Stops the service when the library is unloaded or the process exits. Built at load, so it
// is destroyed after the application's own static objects, whose destructors may still log.
struct ExitStop {
  ExitStop() = default;
  ~ExitStop() {
    if (g_engine != nullptr) g_engine->StopAtExit();
  }
  ExitStop(const ExitStop&) = delete;
  ExitStop& operator=(const ExitStop&) = delete;
} g_exit_stop;

}  // namespace

LogEngine& Engine() {
  static LogEngine* engine = g_engine = new LogEngine;
  return *engine;
}

int LogEngine::ServiceStart() {
  std::lock_guard<std::mutex> service(service_mu_);
  if (started()) return 0;
  if (stopped_) return OXA_LOG_NOT_STARTED;
  {
    std::lock_guard<std::mutex> hold(queue_mu_);
    if (!queue_.Allocate()) return OXA_ERROR;
    quit_ = false;
    writer_done_ = false;
  }
  writer_ = OXA_Thread_Create(WriteLogProc, this, kWriterStackBytes, 0, 0, 0);
  std::lock_guard<std::mutex> hold(queue_mu_);
  if (writer_ == OXA_INVALID_HANDLE) {
    queue_.Free();
    return OXA_ERROR;
  }
  started_.store(true, std::memory_order_release);
  return 0;
}

// REQUIRES: service_mu_ held and the service started.
void LogEngine::SignalQuit(bool drop_untaken) {
  std::lock_guard<std::mutex> hold(queue_mu_);
  started_.store(false, std::memory_order_release);
  quit_ = true;
  if (drop_untaken) queue_.DropUntaken();
  wake_.notify_one();
  flushed_.notify_all();  // pending flushes end: nothing more will be written
}

// REQUIRES: service_mu_ held and the writer told to quit.
void LogEngine::JoinWriterAndRelease() {
  OXA_Thread_Wait(writer_);
  writer_ = OXA_INVALID_HANDLE;
  files_.SwitchFileService(false, nullptr, 0, false);
  std::lock_guard<std::mutex> hold(queue_mu_);
  queue_.Free();
}

// With wait false the lines not yet taken are dropped, but the writer is still joined: it
// finishes at most the batch in hand, and no thread outlives the buffers it writes from.
int LogEngine::ServiceStop(bool wait) {
  std::lock_guard<std::mutex> service(service_mu_);
  if (!started()) return 0;
  SignalQuit(!wait);
  JoinWriterAndRelease();
  return 0;
}

void LogEngine::StopAtExit() {
  std::lock_guard<std::mutex> service(service_mu_);
  if (!started()) return;
  SignalQuit(true);
  {
    std::unique_lock<std::mutex> hold(queue_mu_);
    if (!flushed_.wait_for(hold, kExitGrace, [&] { return writer_done_; })) {
      pthread_detach(static_cast<pthread_t>(writer_));
      return;
    }
  }
  JoinWriterAndRelease();
}

void LogEngine::Flush() {
  std::unique_lock<std::mutex> hold(queue_mu_);
  if (!started()) return;
  const uint32_t target = queue_.pushed();
  ++flush_waiters_;
  writer_idle_ = false;
  wake_.notify_one();
  flushed_.wait(
      hold, [&] { return !started() || static_cast<int32_t>(queue_.released() - target) >= 0; });
  --flush_waiters_;
}

void LogEngine::SetStopped(bool stopped) {
  std::lock_guard<std::mutex> service(service_mu_);
  stopped_ = stopped;
}

int LogEngine::PushData(const char* line, uint32_t length) {
  bool wake = false;
  {
    std::lock_guard<std::mutex> hold(queue_mu_);
    if (!started()) return OXA_LOG_NOT_STARTED;
    if (queue_.Push(line, length) != 0) return OXA_LOG_QUEUE_FULL;
    wake = writer_idle_;
    writer_idle_ = false;  // one wake-up is enough for every line queued meanwhile
  }
  if (wake) wake_.notify_one();
  return 0;
}

void* LogEngine::WriteLogProc(void* engine) {
  static_cast<LogEngine*>(engine)->WriterLoop();
  return nullptr;
}

// The next batch of lines, or 0 after an idle wait, or -1 once told to quit with nothing
// left, so a waited-for stop writes every line first.
// REQUIRES: hold owns queue_mu_.
int64_t LogEngine::NextBatch(std::unique_lock<std::mutex>& hold) {
  const size_t count = queue_.Take(batch_, LogFileSink::kMaxBatch);
  if (count > 0) return static_cast<int64_t>(count);
  if (quit_) {
    writer_done_ = true;
    flushed_.notify_all();
    return -1;
  }
  writer_idle_ = true;
  wake_.wait_for(hold, kIdlePoll);
  writer_idle_ = false;
  return 0;
}

void LogEngine::WriterLoop() {
  for (;;) {
    int64_t count = 0;
    {
      std::unique_lock<std::mutex> hold(queue_mu_);
      count = NextBatch(hold);
    }
    if (count < 0) return;
    if (count == 0) continue;
    Deliver(batch_, static_cast<size_t>(count));
    std::lock_guard<std::mutex> hold(queue_mu_);
    queue_.Release(static_cast<size_t>(count));
    if (flush_waiters_ > 0) flushed_.notify_all();
  }
}

void LogEngine::Deliver(const LogLine* lines, size_t count) {
  if (console_on_) {
    for (size_t i = 0; i < count; ++i)
      fputs(lines[i].data, stdout);
    fflush(stdout);
  }
  if (debug_on_) {
    for (size_t i = 0; i < count; ++i)
      OXA_OutputDebugString(lines[i].data);
  }
  files_.InputLines(lines, count);
}

}  // namespace oxa::internal
