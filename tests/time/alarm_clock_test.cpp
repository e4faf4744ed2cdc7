#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "oxa_alarm.h"

#include "support/test_support.h"

namespace {

using oxa::CAlarmClock;
using oxa_test::kHangGuardMs;
using oxa_test::WaitForThreadCount;
using Clock = std::chrono::steady_clock;

constexpr long long kOneHourMs = 3600 * 1000;
// Ticks are rounded to the millisecond, so a delay may end up to 1 ms short in real time.
constexpr long long kRoundingMs = 1;

// The user data of every alarm: records what fired, when, on which clock and thread.
struct Recorder {
  std::mutex mu;
  std::condition_variable fired;
  std::vector<int> ids;
  std::vector<Clock::time_point> times;
  pid_t tid = 0;
  int rearm_id = -1;  // an alarm with this id tries to remove, then re-adds itself, once
  bool rearm_removed = true, rearm_added = false;
  bool right_clock = true;
  CAlarmClock* clock = nullptr;

  static void OnAlarm(void* clock, int id, void* user) {
    auto* self = static_cast<Recorder*>(user);
    if (id == self->rearm_id && !self->rearm_added) {
      self->rearm_removed = self->clock->RemoveAlarm(id);  // taken out already: false
      self->rearm_added = self->clock->AddAlarm(id, &OnAlarm, user, 10);
    }
    std::lock_guard<std::mutex> hold(self->mu);
    self->right_clock = self->right_clock && clock == self->clock;
    self->ids.push_back(id);
    self->times.push_back(Clock::now());
    self->tid = static_cast<pid_t>(::syscall(SYS_gettid));
    self->fired.notify_all();
  }
  bool WaitFor(size_t count) {
    std::unique_lock<std::mutex> hold(mu);
    return fired.wait_for(hold, std::chrono::milliseconds(kHangGuardMs),
                          [&] { return ids.size() >= count; });
  }
  std::vector<int> Ids() {
    std::lock_guard<std::mutex> hold(mu);
    return ids;
  }
  long long MsFrom(Clock::time_point start, size_t index) {
    std::lock_guard<std::mutex> hold(mu);
    return std::chrono::duration_cast<std::chrono::milliseconds>(times.at(index) - start).count();
  }
};

// True once the thread sits in a blocking wait (state S in its /proc stat line).
bool WaitUntilAsleep(pid_t tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  oxa_test::Stopwatch watch;
  while (watch.Elapsed().count() < kHangGuardMs) {
    std::ifstream stat(path);
    std::string line;
    std::getline(stat, line);
    const auto name_end = line.rfind(')');
    if (name_end != std::string::npos && line.compare(name_end, 3, ") S") == 0) return true;
    std::this_thread::yield();
  }
  return false;
}

TEST(AlarmClock, FiresByDueTimeWithTiesInInsertionOrder) {
  CAlarmClock clock;
  Recorder rec;
  rec.clock = &clock;
  // Added before Start, they wait in the list. The 20 equal delays are added within a tick or
  // two, so many share a due time, and must still fire as added.
  std::vector<int> expected = {12, 13, 11};
  ASSERT_TRUE(clock.AddAlarm(10, &Recorder::OnAlarm, &rec, 80));
  ASSERT_TRUE(clock.AddAlarm(11, &Recorder::OnAlarm, &rec, 40));
  for (int id = 100; id < 120; ++id) {
    ASSERT_TRUE(clock.AddAlarm(id, &Recorder::OnAlarm, &rec, 40));
    expected.push_back(id);
  }
  ASSERT_TRUE(clock.AddAlarm(12, &Recorder::OnAlarm, &rec, -5));  // due at once
  ASSERT_TRUE(clock.AddAlarm(13, &Recorder::OnAlarm, &rec, 0));
  expected.push_back(10);
  ASSERT_TRUE(clock.Start());
  ASSERT_TRUE(rec.WaitFor(expected.size()));
  EXPECT_EQ(expected, rec.Ids());
  EXPECT_TRUE(rec.right_clock);
}

// The thread sleeps until a far alarm; a nearer one added meanwhile must wake it.
TEST(AlarmClock, EarlierAlarmCutsTheCurrentWaitShort) {
  CAlarmClock clock;
  Recorder rec;
  rec.clock = &clock;
  ASSERT_TRUE(clock.AddAlarm(1, &Recorder::OnAlarm, &rec, kOneHourMs));
  ASSERT_TRUE(clock.AddAlarm(0, &Recorder::OnAlarm, &rec, 0));  // tells the thread's id
  ASSERT_TRUE(clock.Start());
  ASSERT_TRUE(rec.WaitFor(1));
  ASSERT_TRUE(WaitUntilAsleep(rec.tid));  // now waiting for alarm 1
  const auto start = Clock::now();
  ASSERT_TRUE(clock.AddAlarm(2, &Recorder::OnAlarm, &rec, 50));
  ASSERT_TRUE(rec.WaitFor(2));
  EXPECT_EQ((std::vector<int>{0, 2}), rec.Ids());
  EXPECT_GE(rec.MsFrom(start, 1), 50 - kRoundingMs);
  EXPECT_LT(rec.MsFrom(start, 1), 2000);
}

TEST(AlarmClock, DuplicateIdIsRefusedAndACallbackMayRearmItself) {
  CAlarmClock clock;
  Recorder rec, intruder;
  rec.clock = &clock;
  rec.rearm_id = 7;
  ASSERT_TRUE(clock.AddAlarm(7, &Recorder::OnAlarm, &rec, 20));
  EXPECT_FALSE(clock.AddAlarm(7, &Recorder::OnAlarm, &intruder, 0));
  ASSERT_TRUE(clock.Start());
  ASSERT_TRUE(rec.WaitFor(2));
  EXPECT_EQ((std::vector<int>{7, 7}), rec.Ids());
  EXPECT_FALSE(rec.rearm_removed);
  EXPECT_TRUE(rec.rearm_added);
  EXPECT_TRUE(intruder.Ids().empty());  // it was due at once: it would have fired first
}

TEST(AlarmClock, RemovedAlarmsNeverFire) {
  CAlarmClock clock;
  Recorder rec;
  rec.clock = &clock;
  ASSERT_TRUE(clock.Start());
  const auto start = Clock::now();
  ASSERT_TRUE(clock.AddAlarm(1, &Recorder::OnAlarm, &rec, 30));
  ASSERT_TRUE(clock.AddAlarm(2, &Recorder::OnAlarm, &rec, 60));
  ASSERT_TRUE(clock.AddAlarm(3, &Recorder::OnAlarm, &rec, 90));
  ASSERT_TRUE(clock.AddAlarm(4, &Recorder::OnAlarm, &rec, 40));
  EXPECT_TRUE(clock.RemoveAlarm(2));
  EXPECT_FALSE(clock.RemoveAlarm(2));
  EXPECT_FALSE(clock.RemoveAlarm(99));
  EXPECT_TRUE(clock.RemoveAlarm(1));  // the front one, which the thread is waiting for
  ASSERT_TRUE(rec.WaitFor(2));
  EXPECT_EQ((std::vector<int>{4, 3}), rec.Ids());
  EXPECT_GE(rec.MsFrom(start, 0), 40 - kRoundingMs);
  EXPECT_GE(rec.MsFrom(start, 1), 90 - kRoundingMs);
  EXPECT_LT(rec.MsFrom(start, 1), 2000);
}

TEST(AlarmClock, StopIsTerminalAndNoThreadOrAlarmOutlivesTheClock) {
  Recorder rec;
  const int before = oxa_test::ThreadCount();
  {
    CAlarmClock clock, idle;
    ASSERT_TRUE(idle.AddAlarm(1, &Recorder::OnAlarm, &rec, 0));  // never started: never fires
    ASSERT_TRUE(clock.Start());
    ASSERT_TRUE(clock.Start());  // already running
    ASSERT_TRUE(WaitForThreadCount(before + 1));
    ASSERT_TRUE(clock.AddAlarm(1, &Recorder::OnAlarm, &rec, kOneHourMs));
    clock.Stop();  // drops alarm 1 without calling it
    EXPECT_TRUE(WaitForThreadCount(before));
    clock.Stop();
    // After a stop, a new thread returns at once and alarms wait forever.
    EXPECT_TRUE(clock.Start());
    EXPECT_TRUE(clock.AddAlarm(2, &Recorder::OnAlarm, &rec, -1));
    EXPECT_TRUE(WaitForThreadCount(before));
    clock.Stop();

    CAlarmClock running;  // its destructor stops it
    ASSERT_TRUE(running.AddAlarm(1, &Recorder::OnAlarm, &rec, kOneHourMs));
    ASSERT_TRUE(running.Start());
    ASSERT_TRUE(WaitForThreadCount(before + 1));
  }
  EXPECT_TRUE(WaitForThreadCount(before));
  EXPECT_TRUE(rec.Ids().empty());
  EXPECT_EQ(nullptr, CAlarmClock::OnThreadRunCallback(nullptr));
}

}  // namespace
