// Small system services: a random number, zeroing, the processor count, per-processor times
// from "/proc/stat" and memory figures from "/proc/meminfo".
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "oxa_sysinfo.h"
#include "oxa_time.h"

#include "util/proc_file.h"
#include "util/proc_parse.h"

using oxa::internal::ProcFile;

static_assert(sizeof(OXA_CPU_TIMES) == 56, "CPU time record is ABI");
static_assert(sizeof(OXA_MEMORY_STATUS) == 48, "memory status record is ABI");

extern "C" {

OXA_API long OXA_Rand(void) {
  // Reseeding on every call is intended: callers want a value that differs between calls a
  // millisecond or more apart, not a sequence.
  srandom(OXA_GetTimeTick());
  return random();
}

OXA_API void* OXA_ZeroMemory(void* memory, unsigned int length) {
  if (memory != nullptr) memset(memory, 0, length);
  return memory;
}

OXA_API int OXA_GetCPUNumber(void) { return static_cast<int>(sysconf(_SC_NPROCESSORS_CONF)); }

OXA_API int OXA_GetCPUPerformance(OXA_CPU_TIMES* records, unsigned int* size) {
  if (size == nullptr) return OXA_ERROR;
  const int cpu_count = OXA_GetCPUNumber();
  if (cpu_count < 1) return OXA_ERROR;
  const unsigned int needed = sizeof(OXA_CPU_TIMES) * static_cast<unsigned int>(cpu_count);
  const bool room = needed <= *size;
  *size = needed;
  if (!room || records == nullptr) return OXA_ERROR;
  ProcFile stat("/proc/stat");
  if (stat.get() == nullptr) return OXA_ERROR;
  return oxa::internal::ParseCpuTimes(stat.get(), records, cpu_count);
}

OXA_API int OXA_GetMemoryStatus(OXA_MEMORY_STATUS* status) {
  if (status == nullptr) return OXA_ERROR;
  *status = OXA_MEMORY_STATUS{};
  ProcFile meminfo("/proc/meminfo");
  if (meminfo.get() == nullptr) return OXA_ERROR;
  return oxa::internal::ParseMemoryStatus(meminfo.get(), status);
}

}  // extern "C"
