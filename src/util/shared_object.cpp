// Shared objects: thin wrappers over the dynamic loader.
#include <dlfcn.h>

#include "oxa_file.h"

extern "C" {

OXA_API void* OXA_LoadDSoEx(const char* path, int flags) {
  if (path == nullptr) return nullptr;
  return ::dlopen(path, flags);
}

OXA_API void* OXA_LoadDSo(const char* path) { return OXA_LoadDSoEx(path, RTLD_NOW | RTLD_GLOBAL); }

OXA_API int OXA_UnloadDSo(void* handle) {
  if (handle == nullptr) return OXA_ERROR;
  return ::dlclose(handle) == 0 ? 0 : OXA_ERROR;
}

OXA_API void* OXA_GetDsoSym(void* handle, const char* symbol) {
  if (handle == nullptr || symbol == nullptr) return nullptr;
  return ::dlsym(handle, symbol);
}

}  // extern "C"
