// Locks and hand-offs: liboxa's wrappers against the raw pthread and semaphore calls.
#include <benchmark/benchmark.h>

#include <pthread.h>
#include <semaphore.h>

#include <cerrno>
#include <thread>

#include "oxa_sync.h"

namespace {

void BM_RawMutexLockUnlock(benchmark::State& state) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  for (auto _ : state) {
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
  }
  pthread_mutex_destroy(&mutex);
}
BENCHMARK(BM_RawMutexLockUnlock);

void BM_OxaMutexLockUnlock(benchmark::State& state) {
  pthread_mutex_t mutex;
  OXA_MutexCreate(&mutex, 0);
  for (auto _ : state) {
    OXA_MutexLock(&mutex);
    OXA_MutexUnlock(&mutex);
  }
  OXA_MutexDestroy(&mutex);
}
BENCHMARK(BM_OxaMutexLockUnlock);

// Two semaphores passed back and forth: one iteration is a full round trip.
template <int (*Wait)(sem_t*), int (*Post)(sem_t*)>
void SemaphorePingPong(benchmark::State& state) {
  sem_t ping;
  sem_t pong;
  sem_init(&ping, 0, 0);
  sem_init(&pong, 0, 0);
  const auto rounds = state.max_iterations;
  std::thread peer([&] {
    for (benchmark::IterationCount i = 0; i < rounds; ++i) {
      Wait(&ping);
      Post(&pong);
    }
  });
  for (auto _ : state) {
    Post(&ping);
    Wait(&pong);
  }
  peer.join();
  sem_destroy(&ping);
  sem_destroy(&pong);
}

int RawSemWait(sem_t* sem) {
  int rc;
  while ((rc = sem_wait(sem)) != 0 && errno == EINTR) {
  }
  return rc;
}

void BM_RawSemaphorePingPong(benchmark::State& state) {
  SemaphorePingPong<RawSemWait, sem_post>(state);
}
BENCHMARK(BM_RawSemaphorePingPong)->UseRealTime();

void BM_OxaSemaphorePingPong(benchmark::State& state) {
  SemaphorePingPong<OXA_SemWait, OXA_SemPost>(state);
}
BENCHMARK(BM_OxaSemaphorePingPong)->UseRealTime();

// A turn flag handed between two threads under one mutex and condition.
struct CondFunctions {
  int (*create)(pthread_cond_t*);
  int (*destroy)(pthread_cond_t*);
  int (*wait)(pthread_cond_t*, pthread_mutex_t*);
  int (*signal)(pthread_cond_t*);
};

void ConditionPingPong(benchmark::State& state, const CondFunctions& cond_fns) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond;
  cond_fns.create(&cond);
  int turn = 0;  // Guarded by mutex: 0 the benchmark thread's, 1 the peer's.
  const auto rounds = state.max_iterations;
  std::thread peer([&] {
    for (benchmark::IterationCount i = 0; i < rounds; ++i) {
      pthread_mutex_lock(&mutex);
      while (turn != 1)
        cond_fns.wait(&cond, &mutex);
      turn = 0;
      cond_fns.signal(&cond);
      pthread_mutex_unlock(&mutex);
    }
  });
  for (auto _ : state) {
    pthread_mutex_lock(&mutex);
    turn = 1;
    cond_fns.signal(&cond);
    while (turn != 0)
      cond_fns.wait(&cond, &mutex);
    pthread_mutex_unlock(&mutex);
  }
  peer.join();
  cond_fns.destroy(&cond);
}

int RawCondCreate(pthread_cond_t* cond) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  const int rc = pthread_cond_init(cond, &attr);
  pthread_condattr_destroy(&attr);
  return rc;
}

void BM_RawConditionPingPong(benchmark::State& state) {
  ConditionPingPong(state,
                    {RawCondCreate, pthread_cond_destroy, pthread_cond_wait, pthread_cond_signal});
}
BENCHMARK(BM_RawConditionPingPong)->UseRealTime();

void BM_OxaConditionPingPong(benchmark::State& state) {
  ConditionPingPong(state, {OXA_CondCreate, OXA_CondDestroy, OXA_CondWait, OXA_CondSignal});
}
BENCHMARK(BM_OxaConditionPingPong)->UseRealTime();

}  // namespace
