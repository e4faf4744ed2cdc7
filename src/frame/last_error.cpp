// The per-thread last-error slot offered to applications. It exists while the library is
// started: the error module creates its key at start and deletes it at stop.
#include <pthread.h>
#include <stdint.h>

#include "oxa_frame.h"

namespace oxa {

OXA_API pthread_key_t g_cOxaTlsKey;
// Written under the initialisation lock, read by any thread without it: accessed with
// atomic builtins (acquire/release) so a reader never sees the flag before the key.
OXA_API bool g_bOxaCreateTlsKeySuccess = false;

namespace {

bool KeyExists() { return __atomic_load_n(&g_bOxaCreateTlsKeySuccess, __ATOMIC_ACQUIRE); }

}  // namespace

OXA_API int CreateTlsKey() {
  const int rc = pthread_key_create(&g_cOxaTlsKey, nullptr);
  if (rc == 0) __atomic_store_n(&g_bOxaCreateTlsKeySuccess, true, __ATOMIC_RELEASE);
  return rc;
}

OXA_API int DestroyTlsKey() {
  const int rc = pthread_key_delete(g_cOxaTlsKey);
  __atomic_store_n(&g_bOxaCreateTlsKeySuccess, false, __ATOMIC_RELEASE);  // also on failure
  return rc;
}

OXA_API void* GetTlsValue() { return pthread_getspecific(g_cOxaTlsKey); }

OXA_API int SetTlsValue(void* value) { return pthread_setspecific(g_cOxaTlsKey, value); }

}  // namespace oxa

OXA_API int OXA_InitError_Inter() { return oxa::CreateTlsKey() == 0 ? 0 : OXA_ERROR; }

OXA_API int OXA_FiniError_Inter() {
  if (oxa::KeyExists()) oxa::DestroyTlsKey();
  return 0;
}

OXA_API int OXA_SetLastError_Inter(unsigned int code) {
  if (!oxa::KeyExists()) return OXA_ERROR;
  // The code is kept in the slot's pointer itself: nothing to allocate or free per thread.
  return oxa::SetTlsValue(reinterpret_cast<void*>(static_cast<uintptr_t>(code))) == 0 ? 0
                                                                                      : OXA_ERROR;
}

OXA_API unsigned int OXA_GetLastError_Inter() {
  if (!oxa::KeyExists()) return 0;
  return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(oxa::GetTlsValue()));
}

extern "C" {

OXA_API int OXA_SetLastError(unsigned int code) { return OXA_SetLastError_Inter(code); }

OXA_API unsigned int OXA_GetLastError(void) { return OXA_GetLastError_Inter(); }

}  // extern "C"
