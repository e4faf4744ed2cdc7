/* A C program that uses an installed liboxa. */
#include <oxa.h>
#include <stdio.h>

int main(void) {
  pthread_mutex_t mutex;
  if (OXA_Init() != 0) return 1;
  if (OXA_MutexCreate(&mutex, 0) != 0 || OXA_MutexLock(&mutex) != 0) return 2;
  OXA_MutexUnlock(&mutex);
  OXA_MutexDestroy(&mutex);
  printf("c consumer: version 0x%08X\n", OXA_GetOXAVersion());
  return OXA_Fini();
}
