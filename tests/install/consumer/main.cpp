// A C++ program that uses an installed liboxa, classes included.
#include <oxa.h>

#include <cstdio>

int main() {
  OXA_Mutex mutex;
  if (mutex.Lock() != 0 || mutex.Lock() != 0) return 1;  // recursive by default
  mutex.Unlock();
  mutex.Unlock();
  OXA_TRACEINFO info{};
  const int none = oxa::oxa_tlsTraceInfoOper::instance().getTraceInfo(&info);
  std::printf("c++ consumer: version 0x%08X, trace %d\n", OXA_GetOXAVersion(), none);
  return none == -1 ? 0 : 3;
}
