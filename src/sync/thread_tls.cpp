// Thread-local keys: a thin layer over pthread keys with -1 as the invalid key.
#include <errno.h>
#include <pthread.h>

#include "oxa_thread.h"

#include "frame/pthread_result.h"

using oxa::internal::ZeroOrError;

namespace {

static_assert(sizeof(pthread_key_t) <= sizeof(OXA_TLS_KEY), "a key handle carries pthread_key_t");

pthread_key_t FromHandle(OXA_TLS_KEY key) { return static_cast<pthread_key_t>(key); }
OXA_TLS_KEY ToHandle(pthread_key_t key) { return static_cast<OXA_TLS_KEY>(key); }

}  // namespace

extern "C" {

OXA_API OXA_TLS_KEY OXA_ThreadTls_Create(void) {
  pthread_key_t key;
  if (ZeroOrError(pthread_key_create(&key, nullptr)) != 0) return OXA_INVALID_TLS_KEY;
  return ToHandle(key);
}

OXA_API int OXA_ThreadTls_SetValue(OXA_TLS_KEY key, void* value) {
  if (key == OXA_INVALID_TLS_KEY) return OXA_ERROR;
  return ZeroOrError(pthread_setspecific(FromHandle(key), value));
}

OXA_API void* OXA_ThreadTls_GetValue(OXA_TLS_KEY key) {
  if (key == OXA_INVALID_TLS_KEY) return nullptr;
  return pthread_getspecific(FromHandle(key));
}

OXA_API int OXA_ThreadTls_Destroy(OXA_TLS_KEY key) {
  if (key == OXA_INVALID_TLS_KEY) return OXA_ERROR;
  return ZeroOrError(pthread_key_delete(FromHandle(key)));
}

}  // extern "C"
