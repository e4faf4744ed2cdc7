// Counted start and stop of the library and of the modules that keep process-wide state.
#include <signal.h>
#include <stdint.h>

#include <ios>

#include "oxa_addr.h"
#include "oxa_frame.h"
#include "oxa_log.h"
#include "oxa_memory.h"
#include "oxa_msgq.h"
#include "oxa_netinfo.h"
#include "oxa_socket.h"
#include "oxa_sync.h"
#include "oxa_threadpool.h"
#include "oxa_timer.h"

#include "frame/load_order.h"
#include "frame/scoped_lock.h"

namespace {

// The standard stream objects are part of the load order: built before the objects that
// follow them, so those may print from their constructors and destructors.
std::ios_base::Init g_streams OXA_LOAD_AT(OXA_LOAD_STREAMS);

// Serialises OXA_InitEx and OXA_Fini. A plain (non-recursive) mutex.
OXA_Mutex g_init_lock OXA_LOAD_AT(OXA_LOAD_INIT_LOCK)(0);

// Number of successful starts not yet matched by a stop. Unsigned and unguarded: an
// unmatched OXA_Fini wraps it, and the next OXA_InitEx brings it back to 0 without starting
// anything. Guarded by g_init_lock.
uint32_t g_init_count = 0;

// A module with process-wide state. `start` is null for a module the frame stops but never
// starts. `started` is set when its start succeeded; the tear-down stops only started modules.
struct Module {
  int (*start)();
  int (*stop)();
  uint32_t started;  // Guarded by g_init_lock.
};

// Start order, and also the tear-down order (which is not reversed). The timer module is
// never started here, so its flag stays clear and its stop step is skipped in practice; the
// step is kept so that the stop order stays complete.
Module g_modules[] = {
    {nullptr, OXA_FiniTimer_Inter, 0},
    {OXA_InitNetwork_Inter, OXA_FiniNetwork_Inter, 0},
    {OXA_MsgQInitEx_Inter, OXA_MsgQFiniEx_Inter, 0},
    {OXA_InitThreadPool_Inter, OXA_FiniThreadPool_Inter, 0},
    {OXA_InitError_Inter, OXA_FiniError_Inter, 0},
};

// REQUIRES: g_init_lock held.
void TearDown() {
  for (Module& module : g_modules) {
    if (module.started == 0) continue;
    module.stop();
    module.started = 0;
  }
  // The application sets the global memory pool up itself; the frame only tears it down.
  OXA_FiniMemoryPool_Inter();
}

// REQUIRES: g_init_lock held.
int StartModules() {
  for (Module& module : g_modules) {
    if (module.start != nullptr) module.started = 0;
  }
  signal(SIGPIPE, SIG_IGN);
  for (Module& module : g_modules) {
    if (module.start == nullptr) continue;
    if (module.start() != 0) {
      TearDown();
      return OXA_ERROR;
    }
    module.started = 1;
  }
  return 0;
}

// Every start, first or nested, sets the default address family from the adapters the host
// has now. The query's failure does not affect the start.
// REQUIRES: g_init_lock held.
void RefreshDefaultFamily() {
  OXA_ADAPTER_INFO_T* adapters = nullptr;
  if (OXA_GetAdapterInfoEx(&adapters, &g_Af) == 0) OXA_FreeAdapterInfo(adapters);
}

}  // namespace

extern "C" {

OXA_API int OXA_InitEx(void) {
  oxa::internal::ScopedLock<OXA_Mutex> hold(g_init_lock);
  if (g_init_count == 0 && StartModules() != 0) return OXA_ERROR;
  ++g_init_count;
  RefreshDefaultFamily();
  return 0;
}

OXA_API int OXA_Init(void) { return OXA_InitEx(); }

OXA_API int OXA_Fini(void) {
  g_init_lock.Lock();
  if (--g_init_count == 0) {
    OXA_Log(0, nullptr);  // the last stop also ends logging: standard output and files off
    TearDown();
  }
  return g_init_lock.Unlock();
}

OXA_API int OXA_FiniEx(void) { return OXA_Fini(); }

}  // extern "C"
