#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <fstream>
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

// One alarm as it fired: its id, when, on which clock and thread.
struct Fired {
  int id;
  Clock::time_point at;
  void* clock;
  pid_t tid;
};

// The user data of every alarm: records each alarm that fired.
struct Recorder : oxa_test::Collector<Fired> {
  CAlarmClock* clock = nullptr;

  static void OnAlarm(void* clock, int id, void* user) {
    static_cast<Recorder*>(user)->Add(
        {id, Clock::now(), clock, static_cast<pid_t>(::syscall(SYS_gettid))});
  }
  // The ids fired so far, once there are n of them or the hang guard has passed.
  std::vector<int> Ids(size_t n) {
    WaitFor(n);
    std::vector<int> ids;
    for (const Fired& fired : Snapshot())
      ids.push_back(fired.id);
    return ids;
  }
  bool AllOnItsClock() {
    for (const Fired& fired : Snapshot()) {
      if (fired.clock != clock) return false;
    }
    return true;
  }
  long long MsFrom(Clock::time_point start, size_t index) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Snapshot().at(index).at - start)
        .count();
  }
};

// Taken out before its callback runs, the alarm can no longer be removed but can be added
// again; it records its id negated if either of these went otherwise.
void Rearm(void* clock, int id, void* user) {
  CAlarmClock* self = static_cast<Recorder*>(user)->clock;
  const bool as_expected =
      !self->RemoveAlarm(id) && self->AddAlarm(id, &Recorder::OnAlarm, user, 10);
  Recorder::OnAlarm(clock, as_expected ? id : -id, user);
}

// True once the thread sits in a blocking wait (state S in its /proc stat line).
bool WaitUntilAsleep(pid_t tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  for (oxa_test::Stopwatch watch; watch.Elapsed().count() < kHangGuardMs;) {
    std::ifstream stat(path);
    std::string line;
    std::getline(stat, line);
    const auto name_end = line.rfind(')');
    if (name_end != std::string::npos && line.compare(name_end, 3, ") S") == 0) return true;
    std::this_thread::yield();
  }
  return false;
}

// Alarms added before Start wait in the list. The 20 equal delays are added within a tick or
// two, so many share a due time, and must still fire as added. A pending id is refused.
TEST(AlarmClock, FiresByDueTimeWithTiesInInsertionOrder) {
  CAlarmClock clock;
  Recorder rec, intruder;
  rec.clock = &clock;
  std::vector<int> expected = {12, 13, 11};
  ASSERT_TRUE(clock.AddAlarm(10, &Rearm, &rec, 80));
  ASSERT_TRUE(clock.AddAlarm(11, &Recorder::OnAlarm, &rec, 40));
  for (int id = 100; id < 120; ++id) {
    ASSERT_TRUE(clock.AddAlarm(id, &Recorder::OnAlarm, &rec, 40));
    expected.push_back(id);
  }
  ASSERT_TRUE(clock.AddAlarm(12, &Recorder::OnAlarm, &rec, -5));  // due at once
  ASSERT_TRUE(clock.AddAlarm(13, &Recorder::OnAlarm, &rec, 0));
  EXPECT_FALSE(clock.AddAlarm(10, &Recorder::OnAlarm, &intruder, 0));
  expected.insert(expected.end(), {10, 10});
  ASSERT_TRUE(clock.Start());
  EXPECT_EQ(expected, rec.Ids(expected.size()));
  EXPECT_TRUE(rec.AllOnItsClock());
  EXPECT_TRUE(intruder.Count() == 0);  // it was due at once: it would have fired first
}

// Alarms added while the thread sleeps until a far alarm must wake it. Removing the front
// alarm does not; the thread wakes at its due time and waits again for the next.
TEST(AlarmClock, EarlierAlarmsCutTheWaitShortRemovedOnesNeverFire) {
  CAlarmClock clock;
  Recorder rec;
  rec.clock = &clock;
  // "Never": the due time must not wrap into the past.
  ASSERT_TRUE(clock.AddAlarm(5, &Recorder::OnAlarm, &rec, LLONG_MAX));
  ASSERT_TRUE(clock.AddAlarm(0, &Recorder::OnAlarm, &rec, 0));  // tells the thread's id
  ASSERT_TRUE(clock.Start());
  ASSERT_TRUE(rec.WaitFor(1));
  ASSERT_TRUE(WaitUntilAsleep(rec.Snapshot()[0].tid));  // now waiting for alarm 5
  const auto start = Clock::now();
  ASSERT_TRUE(clock.AddAlarm(1, &Recorder::OnAlarm, &rec, 30));
  ASSERT_TRUE(clock.AddAlarm(2, &Recorder::OnAlarm, &rec, 60));
  ASSERT_TRUE(clock.AddAlarm(3, &Recorder::OnAlarm, &rec, 90));
  ASSERT_TRUE(clock.AddAlarm(4, &Recorder::OnAlarm, &rec, 40));
  EXPECT_TRUE(clock.RemoveAlarm(2));
  EXPECT_FALSE(clock.RemoveAlarm(2));
  EXPECT_FALSE(clock.RemoveAlarm(99));
  EXPECT_TRUE(clock.RemoveAlarm(1));  // the front one, which the thread is waiting for
  ASSERT_EQ((std::vector<int>{0, 4, 3}), rec.Ids(3));
  EXPECT_GE(rec.MsFrom(start, 1), 40 - kRoundingMs);
  EXPECT_GE(rec.MsFrom(start, 2), 90 - kRoundingMs);
  EXPECT_LT(rec.MsFrom(start, 2), static_cast<long long>(kHangGuardMs));
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
  EXPECT_EQ(0u, rec.Count());
  EXPECT_EQ(nullptr, CAlarmClock::OnThreadRunCallback(nullptr));
}

}  // namespace
