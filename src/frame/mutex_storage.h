// Access to the system mutex inside the library's mutex classes, for the library's own
// conditions that must wait with it.
#ifndef OXA_SRC_FRAME_MUTEX_STORAGE_H_
#define OXA_SRC_FRAME_MUTEX_STORAGE_H_

#include <pthread.h>

#include <type_traits>

#include "oxa_sync.h"

namespace oxa::internal {

static_assert(std::is_standard_layout_v<OXA_UniqueMutex> &&
                  sizeof(OXA_UniqueMutex) == sizeof(pthread_mutex_t),
              "OXA_UniqueMutex is its mutex storage");

// The system mutex that is the class's only field.
inline pthread_mutex_t* SystemMutex(OXA_UniqueMutex& mutex) {
  return reinterpret_cast<pthread_mutex_t*>(&mutex);
}

static_assert(std::is_standard_layout_v<OXA_Mutex> && sizeof(OXA_Mutex) == sizeof(pthread_mutex_t),
              "OXA_Mutex is its mutex storage");

// The same for OXA_Mutex, for hot paths that lock it without the class's two call hops.
inline pthread_mutex_t* SystemMutex(OXA_Mutex& mutex) {
  return reinterpret_cast<pthread_mutex_t*>(&mutex);
}

}  // namespace oxa::internal

#endif  // OXA_SRC_FRAME_MUTEX_STORAGE_H_
