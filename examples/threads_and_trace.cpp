// Threads carry their creator's trace context: set one, start threads, and each sees it.
#include <cstdio>
#include <cstring>

#include "oxa_sync.h"
#include "oxa_thread.h"
#include "oxa_trace.h"

namespace {

void PrintContext(const char* who) {
  OXA_TRACEINFO info;
  if (oxa::oxa_tlsTraceInfoOper::instance().getTraceInfo(&info) != 0) {
    std::printf("  %-26s no trace context\n", who);
    return;
  }
  std::printf("  %-26s trace \"%s\" / \"%s\" / \"%s\", bytes %u %u\n", who, info.text1, info.text2,
              info.text3, info.byte1, info.byte2);
}

sem_t g_detached_done;

void* Worker(void* arg) {
  PrintContext(static_cast<const char*>(arg));
  return nullptr;
}

void* DetachedWorker(void* arg) {
  PrintContext(static_cast<const char*>(arg));
  OXA_SemPost(&g_detached_done);
  return nullptr;
}

}  // namespace

int main() {
  std::printf("Before any context is set:\n");
  OXA_HANDLE bare = OXA_Thread_Create(Worker, const_cast<char*>("joinable thread"), 0, 0, 0, 0);
  OXA_Thread_Wait(bare);

  OXA_TRACEINFO info{};
  std::strcpy(info.text1, "order-4711");
  std::strcpy(info.text2, "gateway");
  std::strcpy(info.text3, "span-1");
  info.byte1 = 1;
  info.byte2 = 3;
  oxa::oxa_tlsTraceInfoOper::instance().setTraceInfo(info);
  std::printf("After the main thread set its context:\n");
  PrintContext("main thread");

  OXA_Thread thread;
  thread.Create(Worker, const_cast<char*>("OXA_Thread"), 64 * 1024, 0, 0, 0);
  thread.Wait();

  OXA_SemCreate(&g_detached_done, 0);
  OXA_ThreadDetached_Create(DetachedWorker, const_cast<char*>("detached thread"), 0);
  OXA_SemWait(&g_detached_done);
  OXA_SemDestroy(&g_detached_done);

  oxa::oxa_tlsTraceInfoOper::instance().eraseTraceInfo();
  std::printf("After erasing it:\n");
  PrintContext("main thread");
  return 0;
}
