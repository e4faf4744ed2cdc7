// Mutexes, semaphores and conditions: a small producer and consumer, and timed waits.
#include <cerrno>
#include <cstdio>

#include "oxa_sync.h"
#include "oxa_thread.h"
#include "oxa_time.h"

namespace {

struct Mailbox {
  pthread_mutex_t mutex;
  pthread_cond_t ready;
  int value = 0;
  bool full = false;  // Guarded by mutex.
};

void* Producer(void* arg) {
  auto* box = static_cast<Mailbox*>(arg);
  for (int i = 1; i <= 3; ++i) {
    OXA_MutexLock(&box->mutex);
    while (box->full)
      OXA_CondWait(&box->ready, &box->mutex);
    box->value = i * 10;
    box->full = true;
    OXA_CondBroadCast(&box->ready);
    OXA_MutexUnlock(&box->mutex);
  }
  return nullptr;
}

}  // namespace

int main() {
  OXA_Mutex recursive;
  std::printf("OXA_Mutex is recursive: Lock %d, Lock again %d\n", recursive.Lock(),
              recursive.Lock());
  recursive.Unlock();
  recursive.Unlock();
  OXA_UniqueMutex plain;
  plain.Lock();
  std::printf("OXA_UniqueMutex is plain: TryLock while held gives %d\n", plain.TryLock());
  plain.Unlock();

  sem_t sem;
  OXA_SemCreate(&sem, 0);
  unsigned int start = OXA_GetTimeTick();
  const int timed = OXA_SemTimedWait(&sem, 50);
  std::printf("OXA_SemTimedWait(50 ms) on an empty semaphore: %d after %u ms\n", timed,
              OXA_GetTimeTick() - start);
  OXA_SemDestroy(&sem);

  OXA_Sema bounded(1, 1);
  std::printf("OXA_Sema(initial 1, maximum 1): Post gives %d (full)\n", bounded.Post());

  std::printf("Conditions print their clock attribute when created and destroyed:\n");
  std::fflush(stdout);
  Mailbox box;
  OXA_MutexCreate(&box.mutex, 0);
  OXA_CondCreate(&box.ready);
  OXA_MutexLock(&box.mutex);
  start = OXA_GetTimeTick();
  const int rc = OXA_CondTimedWait(&box.ready, &box.mutex, 30);
  std::printf("OXA_CondTimedWait(30 ms) with nobody signalling: %s after %u ms\n",
              rc == ETIMEDOUT ? "ETIMEDOUT" : "woken", OXA_GetTimeTick() - start);
  OXA_MutexUnlock(&box.mutex);

  const OXA_HANDLE producer = OXA_Thread_Create(Producer, &box, 0, 0, 0, 0);
  for (int i = 0; i < 3; ++i) {
    OXA_MutexLock(&box.mutex);
    while (!box.full)
      OXA_CondWait(&box.ready, &box.mutex);
    std::printf("consumer received %d\n", box.value);
    box.full = false;
    OXA_CondBroadCast(&box.ready);
    OXA_MutexUnlock(&box.mutex);
  }
  OXA_Thread_Wait(producer);
  std::fflush(stdout);
  OXA_CondDestroy(&box.ready);
  OXA_MutexDestroy(&box.mutex);
  return 0;
}
