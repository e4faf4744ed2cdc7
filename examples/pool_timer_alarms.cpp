// Work that runs later: a thread pool whose items carry the submitter's trace context, a
// periodic timer, and one-shot alarms on an alarm clock. Semaphores order the output.
#include <cstdio>
#include <cstring>

#include "oxa_alarm.h"
#include "oxa_frame.h"
#include "oxa_sync.h"
#include "oxa_threadpool.h"
#include "oxa_time.h"
#include "oxa_timer.h"
#include "oxa_trace.h"

namespace {

constexpr unsigned int kWaitMs = 3000;  // bound of every wait for another thread

void SetContext(const char* text1, const char* text3) {
  OXA_TRACEINFO info{};
  std::snprintf(info.text1, sizeof info.text1, "%s", text1);
  std::snprintf(info.text2, sizeof info.text2, "%s", "pool-demo");
  std::snprintf(info.text3, sizeof info.text3, "%s", text3);
  oxa::oxa_tlsTraceInfoOper::instance().setTraceInfo(info);
}

// ---- Thread pool --------------------------------------------------------------------------

// One work item: it waits at the gate (so that a batch occupies the workers together), writes
// the context it runs under into its line, and reports done.
struct Task {
  int number = 0;
  sem_t* gate = nullptr;
  sem_t* done = nullptr;
  char line[256] = {};
};

void* RunTask(void* arg) {
  auto* task = static_cast<Task*>(arg);
  if (task->gate != nullptr) OXA_SemTimedWait(task->gate, kWaitMs);
  OXA_TRACEINFO info;
  if (oxa::oxa_tlsTraceInfoOper::instance().getTraceInfo(&info) != 0 || info.text1[0] == 0) {
    std::snprintf(task->line, sizeof task->line, "task %d: empty trace context", task->number);
  } else {
    std::snprintf(task->line, sizeof task->line, "task %d: trace \"%s\" / \"%s\" / \"%s\"",
                  task->number, info.text1, info.text2, info.text3);
  }
  OXA_SemPost(task->done);
  return nullptr;
}

// Submits count tasks, opens the gate, waits for all, then prints their lines in order.
bool RunBatch(OXA_THREADPOOL pool, Task* tasks, int count, sem_t* gate, sem_t* done) {
  for (int i = 0; i < count; ++i) {
    tasks[i].gate = gate;
    tasks[i].done = done;
    if (OXA_ThreadPool_WorkEx(pool, RunTask, &tasks[i], 1) != 0) return false;
  }
  for (int i = 0; gate != nullptr && i < count; ++i)
    OXA_SemPost(gate);
  for (int i = 0; i < count; ++i) {
    if (OXA_SemTimedWait(done, kWaitMs) != 0) return false;
  }
  for (int i = 0; i < count; ++i)
    std::printf("  %s\n", tasks[i].line);
  return true;
}

// Two initial workers, at most three. The first batch holds three workers at once, so the
// third item starts the third worker, and an item that starts a worker runs without context.
// The second batch finds all three workers present.
bool PoolTour() {
  std::printf("thread pool (2 workers, up to 3):\n");
  OXA_THREADPOOL pool = OXA_ThreadPool_Create(2, 3);
  if (pool == nullptr) return false;
  sem_t gate, done;
  OXA_SemCreate(&gate, 0);
  OXA_SemCreate(&done, 0);
  Task first[3], second[4];
  for (int i = 0; i < 3; ++i)
    first[i].number = i + 1;
  for (int i = 0; i < 4; ++i)
    second[i].number = i + 4;
  SetContext("order-4711", "batch-1");
  bool ok = RunBatch(pool, first, 3, &gate, &done);
  SetContext("order-4712", "batch-2");
  ok = ok && RunBatch(pool, second, 4, nullptr, &done);
  oxa::oxa_tlsTraceInfoOper::instance().eraseTraceInfo();
  OXA_ThreadPool_Destroy(pool);
  OXA_SemDestroy(&done);
  OXA_SemDestroy(&gate);
  return ok;
}

// ---- Periodic timer -----------------------------------------------------------------------

constexpr unsigned int kPeriodMs = 20;
constexpr int kTimerCalls = 4;

struct TimerLog {
  sem_t called;
  unsigned long long start_ms = 0;
  unsigned long long at_ms[16] = {};
  int calls = 0;  // written by the timer's thread only; read after a post or after the kill
};

int OnTimer(unsigned int, void* user_data) {
  auto* log = static_cast<TimerLog*>(user_data);
  if (log->calls < 16) log->at_ms[log->calls] = OXA_GetTimeTick64() - log->start_ms;
  ++log->calls;
  OXA_SemPost(&log->called);
  return 0;
}

bool TimerTour() {
  std::printf("periodic timer (%u ms after each call returns):\n", kPeriodMs);
  TimerLog log;
  OXA_SemCreate(&log.called, 0);
  log.start_ms = OXA_GetTimeTick64();
  unsigned int id = 0;
  if (OXA_SetTimer(OnTimer, &log, kPeriodMs, &id) != 0) return false;
  bool ok = true;
  for (int i = 0; i < kTimerCalls && ok; ++i) {
    ok = OXA_SemTimedWait(&log.called, kWaitMs) == 0;
    if (ok) std::printf("  timer %u call %d at +%llu ms\n", id, i + 1, log.at_ms[i]);
  }
  OXA_KillTimer(id);  // returns after the thread has ended: no call comes after this
  const int calls_at_kill = log.calls;
  // Take the posts of calls made before the kill, then watch three periods pass quietly.
  while (ok && OXA_SemTimedWait(&log.called, 3 * kPeriodMs) == 0) {
  }
  std::printf("  killed after %d calls; %s\n", calls_at_kill,
              log.calls == calls_at_kill ? "none since" : "UNEXPECTED later call");
  OXA_SemDestroy(&log.called);
  return ok;
}

// ---- Alarm clock --------------------------------------------------------------------------

struct AlarmLog {
  sem_t fired;
  unsigned long long start_ms = 0;
  int order[8] = {};
  unsigned long long at_ms[8] = {};
  int count = 0;  // written by the clock's thread only; read after the posts
};

void OnAlarm(void*, int id, void* user_data) {
  auto* log = static_cast<AlarmLog*>(user_data);
  if (log->count < 8) {
    log->order[log->count] = id;
    log->at_ms[log->count] = OXA_GetTimeTick64() - log->start_ms;
  }
  ++log->count;
  OXA_SemPost(&log->fired);
}

bool AlarmTour() {
  std::printf("alarm clock:\n");
  AlarmLog log;
  OXA_SemCreate(&log.fired, 0);
  oxa::CAlarmClock clock;
  log.start_ms = OXA_GetTimeTick64();
  // Added out of order; 4 is removed before it is due, and a second 3 is refused.
  const struct {
    int id;
    long long delay_ms;
  } alarms[] = {{3, 90}, {1, 30}, {4, 45}, {2, 60}, {5, 60}};
  for (const auto& a : alarms) {
    clock.AddAlarm(a.id, OnAlarm, &log, a.delay_ms);
    std::printf("  added alarm %d due in %lld ms\n", a.id, a.delay_ms);
  }
  std::printf("  adding alarm 3 again: %s\n",
              clock.AddAlarm(3, OnAlarm, &log, 10) ? "accepted" : "refused (pending)");
  std::printf("  removing alarm 4: %s\n", clock.RemoveAlarm(4) ? "removed" : "not found");
  if (!clock.Start()) return false;
  bool ok = true;
  for (int i = 0; i < 4 && ok; ++i)
    ok = OXA_SemTimedWait(&log.fired, kWaitMs) == 0;
  clock.Stop();
  for (int i = 0; i < 4 && i < log.count; ++i)
    std::printf("  fired alarm %d at +%llu ms\n", log.order[i], log.at_ms[i]);
  std::printf("  %d alarms fired; alarm 4 %s\n", log.count,
              log.count == 4 ? "never did" : "UNEXPECTED");
  OXA_SemDestroy(&log.fired);
  return ok;
}

}  // namespace

int main() {
  // Line by line, so that the library's own lines on standard error fall into place.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (OXA_InitEx() != 0) return 1;
  const bool ok = PoolTour() && TimerTour() && AlarmTour();
  if (!ok) std::printf("FAILED\n");
  OXA_Fini();
  return ok ? 0 : 1;
}
