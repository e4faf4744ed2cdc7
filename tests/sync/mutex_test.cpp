#include <gtest/gtest.h>

#include <errno.h>
#include <pthread.h>

#include "oxa_sync.h"

namespace {

TEST(Mutex, NullPointerGivesMinusOne) {
  EXPECT_EQ(-1, OXA_MutexCreate(nullptr, 0));
  EXPECT_EQ(-1, OXA_MutexDestroy(nullptr));
  EXPECT_EQ(-1, OXA_MutexLock(nullptr));
  EXPECT_EQ(-1, OXA_MutexTryLock(nullptr));
  EXPECT_EQ(-1, OXA_MutexUnlock(nullptr));
}

TEST(Mutex, TypeSelectsRecursiveNormalOrErrorChecking) {
  pthread_mutex_t mutex;
  ASSERT_EQ(0, OXA_MutexCreate(&mutex, 0xFFFFFFFFu));  // -1: recursive
  EXPECT_EQ(0, OXA_MutexLock(&mutex));
  EXPECT_EQ(0, OXA_MutexTryLock(&mutex));
  EXPECT_EQ(0, OXA_MutexUnlock(&mutex));
  EXPECT_EQ(0, OXA_MutexUnlock(&mutex));
  EXPECT_EQ(0, OXA_MutexDestroy(&mutex));

  ASSERT_EQ(0, OXA_MutexCreate(&mutex, 0));  // normal
  EXPECT_EQ(0, OXA_MutexLock(&mutex));
  EXPECT_EQ(-1, OXA_MutexTryLock(&mutex));
  EXPECT_EQ(EBUSY, errno);
  EXPECT_EQ(-1, OXA_MutexDestroy(&mutex)) << "a locked mutex cannot be destroyed";
  EXPECT_EQ(0, OXA_MutexUnlock(&mutex));
  EXPECT_EQ(0, OXA_MutexDestroy(&mutex));

  ASSERT_EQ(0, OXA_MutexCreate(&mutex, 2));  // error-checking
  EXPECT_EQ(0, OXA_MutexLock(&mutex));
  EXPECT_EQ(-1, OXA_MutexLock(&mutex));
  EXPECT_EQ(EDEADLK, errno);
  EXPECT_EQ(0, OXA_MutexUnlock(&mutex));
  EXPECT_EQ(0, OXA_MutexDestroy(&mutex));
}

// The same thread locking twice tells a recursive mutex from a normal one.
TEST(MutexClasses, DefaultsAreRecursiveExceptUniqueMutex) {
  OXA_Mutex recursive;
  OXA_Mutex normal(0);
  OXA_UniqueMutex unique;
  oxa::oxa_mutex lower;
  oxa::oxa_mutex lower_normal(0);
  oxa::oxa_recursive_mutex virtual_recursive;
  ASSERT_EQ(0, recursive.Lock());
  ASSERT_EQ(0, normal.Lock());
  ASSERT_EQ(0, unique.Lock());
  ASSERT_EQ(0, lower.lock());
  ASSERT_EQ(0, lower_normal.lock());
  ASSERT_EQ(0, virtual_recursive.lock());
  EXPECT_EQ(0, recursive.TryLock());
  EXPECT_EQ(-1, normal.TryLock());
  EXPECT_EQ(-1, unique.TryLock());
  EXPECT_EQ(0, lower.trylock());
  EXPECT_EQ(-1, lower_normal.trylock());
  EXPECT_EQ(0, virtual_recursive.trylock());
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(0, recursive.Unlock());
    EXPECT_EQ(0, lower.unlock());
    EXPECT_EQ(0, virtual_recursive.unlock());
  }
  EXPECT_EQ(0, normal.Unlock());
  EXPECT_EQ(0, unique.Unlock());
  EXPECT_EQ(0, lower_normal.unlock());
}

}  // namespace
