#include <gtest/gtest.h>

#include <errno.h>
#include <pthread.h>

#include "oxa_sync.h"

namespace {

// The holder locks again: a recursive mutex (type -1) counts, a normal one (0) is busy, and an
// error-checking one (2, passed on unchanged) reports the deadlock.
TEST(Mutex, NullPointersAndTheThreeTypes) {
  EXPECT_EQ(-1, OXA_MutexCreate(nullptr, 0));
  for (auto* fn : {OXA_MutexDestroy, OXA_MutexLock, OXA_MutexTryLock, OXA_MutexUnlock})
    EXPECT_EQ(-1, fn(nullptr));
  pthread_mutex_t recursive, normal, checking;
  ASSERT_EQ(0, OXA_MutexCreate(&recursive, 0xFFFFFFFFu));
  ASSERT_EQ(0, OXA_MutexCreate(&normal, 0));
  ASSERT_EQ(0, OXA_MutexCreate(&checking, 2));
  for (pthread_mutex_t* mutex : {&recursive, &normal, &checking})
    ASSERT_EQ(0, OXA_MutexLock(mutex));
  EXPECT_EQ(0, OXA_MutexTryLock(&recursive));
  EXPECT_EQ(0, OXA_MutexUnlock(&recursive));
  EXPECT_EQ(-1, OXA_MutexTryLock(&normal));
  EXPECT_EQ(EBUSY, errno);
  EXPECT_EQ(-1, OXA_MutexLock(&checking));
  EXPECT_EQ(EDEADLK, errno);
  for (pthread_mutex_t* mutex : {&recursive, &normal, &checking}) {
    EXPECT_EQ(0, OXA_MutexUnlock(mutex));
    EXPECT_EQ(0, OXA_MutexDestroy(mutex));
  }
}

// The holder's try-lock tells a recursive mutex from a normal one.
TEST(MutexClasses, DefaultsAreRecursiveExceptUniqueMutex) {
  OXA_Mutex recursive, normal(0);
  OXA_UniqueMutex unique;
  oxa::oxa_mutex lower, lower_normal(0);
  oxa::oxa_recursive_mutex virtual_recursive;
  ASSERT_EQ(0, recursive.Lock() + normal.Lock() + unique.Lock());
  ASSERT_EQ(0, lower.lock() + lower_normal.lock() + virtual_recursive.lock());
  EXPECT_EQ(0, recursive.TryLock());
  EXPECT_EQ(-1, normal.TryLock());
  EXPECT_EQ(-1, unique.TryLock());
  EXPECT_EQ(0, lower.trylock());
  EXPECT_EQ(-1, lower_normal.trylock());
  EXPECT_EQ(0, virtual_recursive.trylock());
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(0, recursive.Unlock() + lower.unlock() + virtual_recursive.unlock());
  EXPECT_EQ(0, normal.Unlock() + unique.Unlock() + lower_normal.unlock());
}

}  // namespace
