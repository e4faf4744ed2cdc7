// Parsers for the kernel's text files "/proc/stat", "/proc/meminfo" and "/proc/net/dev".
//
// They read from any stdio stream, so the tests feed them prepared text (a twelve-processor
// machine, a kernel without MemAvailable) as well as the live files. Kept inline in this header
// for that reason: the test programs compile their own copy.
#ifndef OXA_SRC_UTIL_PROC_PARSE_H_
#define OXA_SRC_UTIL_PROC_PARSE_H_

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "oxa_netflow.h"
#include "oxa_sysinfo.h"

namespace oxa::internal {

// Reads a stream line by line into a buffer that grows as needed ("/proc/stat" has lines of
// several kilobytes) and is freed at the end.
class LineReader {
 public:
  explicit LineReader(FILE* in) : in_(in) {}
  ~LineReader() { free(line_); }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // False at the end of the stream (or when the buffer cannot grow).
  bool Next() { return getline(&line_, &capacity_, in_) != -1; }
  const char* text() const { return line_; }

 private:
  FILE* in_;
  char* line_ = nullptr;
  size_t capacity_ = 0;
};

// ---- "/proc/stat" -----------------------------------------------------------

// One "cpuN ..." line. The conversions are 32-bit ("I" is the locale-digits flag and 64 a field
// width), so each counter arrives cut to 32 bits, and a line that does not match leaves zeros.
// Lines from index 10 on have a two-digit processor number; the number itself is not used.
inline void ParseCpuLine(const char* line, int index, OXA_CPU_TIMES* record) {
  int cpu = 0;
  unsigned int user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0;
  if (index <= 9) {
    sscanf(line, "cpu%1d %I64u %I64u %I64u %I64u %I64u %I64u %I64u", &cpu, &user, &nice, &system,
           &idle, &iowait, &irq, &softirq);
  } else {
    sscanf(line, "cpu%2d %I64u %I64u %I64u %I64u %I64u %I64u %I64u", &cpu, &user, &nice, &system,
           &idle, &iowait, &irq, &softirq);
  }
  record->uIdle = idle;
  record->uSystem = system;
  record->uUser = static_cast<oxa_uint64>(user) + nice;
  record->uIdleTotal = static_cast<oxa_uint64>(idle) + iowait;
  record->uInterrupt = static_cast<oxa_uint64>(irq) + softirq;
}

// Skips the all-processor line, then fills cpu_count records from the lines that follow.
// 0, or -1 when the stream ends first. REQUIRES: records has room for cpu_count entries.
inline int ParseCpuTimes(FILE* in, OXA_CPU_TIMES* records, int cpu_count) {
  LineReader lines(in);
  if (!lines.Next()) return -1;
  for (int i = 0; i < cpu_count; ++i) {
    if (!lines.Next()) return -1;
    ParseCpuLine(lines.text(), i, &records[i]);
  }
  return 0;
}

// ---- "/proc/meminfo" --------------------------------------------------------

inline bool StartsWith(const char* text, const char* prefix) {
  return strncmp(text, prefix, strlen(prefix)) == 0;
}

inline oxa_uint64 KiloBytes(unsigned int kb) { return static_cast<oxa_uint64>(kb) * 1024u; }

// Working values of one pass over "/proc/meminfo"; all ones means "not seen".
struct MemInfo {
  static constexpr oxa_uint64 kNotSeen = ~0ull;
  oxa_uint64 available = kNotSeen;
  oxa_uint64 free = kNotSeen;
  oxa_uint64 buffers = kNotSeen;
  oxa_uint64 cached = kNotSeen;
  bool total_seen = false;
  bool swap_total_seen = false;
  bool swap_free_seen = false;

  bool Complete() const { return total_seen && swap_total_seen && swap_free_seen; }
};

// Takes one line into info or status; the prefixes are tested in this order.
inline void ParseMemLine(const char* line, MemInfo* info, OXA_MEMORY_STATUS* status) {
  unsigned int kb = 0;
  if (StartsWith(line, "MemTotal")) {
    sscanf(line, "MemTotal:%I64u kB", &kb);
    status->uTotal = KiloBytes(kb);
    info->total_seen = true;
  } else if (StartsWith(line, "MemAvailable")) {
    sscanf(line, "MemAvailable:%I64u kB", &kb);
    info->available = KiloBytes(kb);
  } else if (StartsWith(line, "MemFree")) {
    sscanf(line, "MemFree:%I64u kB", &kb);
    info->free = KiloBytes(kb);
  } else if (StartsWith(line, "Buffers")) {
    sscanf(line, "Buffers:%I64u kB", &kb);
    info->buffers = KiloBytes(kb);
  } else if (StartsWith(line, "Cached")) {
    sscanf(line, "Cached:%I64u kB", &kb);
    info->cached = KiloBytes(kb);
  } else if (StartsWith(line, "SwapTotal")) {
    sscanf(line, "SwapTotal:%I64u kB", &kb);
    status->uSwapTotal = KiloBytes(kb);
    info->swap_total_seen = true;
  } else if (StartsWith(line, "SwapFree")) {
    sscanf(line, "SwapFree:%I64u kB", &kb);
    status->uSwapFree = KiloBytes(kb);
    info->swap_free_seen = true;
  }
}

// Reads until MemTotal, SwapTotal and SwapFree were all seen; 0, or -1 when the stream ends
// first. REQUIRES: status zeroed.
inline int ParseMemoryStatus(FILE* in, OXA_MEMORY_STATUS* status) {
  MemInfo info;
  LineReader lines(in);
  while (!info.Complete()) {
    if (!lines.Next()) return -1;
    ParseMemLine(lines.text(), &info, status);
  }
  // Older kernels have no MemAvailable; an estimate not above MemFree is not trusted either.
  // The sum wraps when a part was not seen, as unsigned arithmetic does.
  const bool usable = info.available != MemInfo::kNotSeen && info.available > info.free;
  status->uAvailable = usable ? info.available : info.free + info.buffers + info.cached;
  return 0;
}

// ---- "/proc/net/dev" --------------------------------------------------------

// The counters in the order of the file's columns.
constexpr oxa_uint64 OXA_NETFLOW_DATA::*kFlowColumns[] = {
    &OXA_NETFLOW_DATA::uRecvBytes,      &OXA_NETFLOW_DATA::uRecvPackets,
    &OXA_NETFLOW_DATA::uRecvErrors,     &OXA_NETFLOW_DATA::uRecvDropped,
    &OXA_NETFLOW_DATA::uRecvFifo,       &OXA_NETFLOW_DATA::uRecvFrame,
    &OXA_NETFLOW_DATA::uRecvCompressed, &OXA_NETFLOW_DATA::uRecvMulticast,
    &OXA_NETFLOW_DATA::uSendBytes,      &OXA_NETFLOW_DATA::uSendPackets,
    &OXA_NETFLOW_DATA::uSendErrors,     &OXA_NETFLOW_DATA::uSendDropped,
    &OXA_NETFLOW_DATA::uSendFifo,       &OXA_NETFLOW_DATA::uSendCollisions,
    &OXA_NETFLOW_DATA::uSendCarrier,    &OXA_NETFLOW_DATA::uSendCompressed,
};

// One interface line, "  name: c0 c1 ... c15" (the name may touch the colon and the colon the
// first number). 1 for an interface line, 0 for a line without a colon (the two header lines),
// -1 for an interface line without sixteen counters.
inline int ParseFlowLine(const char* line, OXA_NETFLOW_DATA* record) {
  const char* colon = strchr(line, ':');
  if (colon == nullptr) return 0;
  const char* name = line + strspn(line, " \t");
  if (name > colon) name = colon;
  *record = OXA_NETFLOW_DATA{};
  size_t length = static_cast<size_t>(colon - name);
  if (length >= sizeof record->szName) length = sizeof record->szName - 1;
  memcpy(record->szName, name, length);
  const char* cursor = colon + 1;
  for (oxa_uint64 OXA_NETFLOW_DATA::*column : kFlowColumns) {
    char* end = nullptr;
    record->*column = strtoull(cursor, &end, 10);
    if (end == cursor) return -1;
    cursor = end;
  }
  return 1;
}

// Calls visit(record) for every interface in file order until it returns false. 0, or -1 with
// errno EINVAL for a line that does not parse.
template <class Visit>
int ForEachFlow(FILE* in, Visit visit) {
  LineReader lines(in);
  OXA_NETFLOW_DATA record;
  while (lines.Next()) {
    const int parsed = ParseFlowLine(lines.text(), &record);
    if (parsed < 0) {
      errno = EINVAL;
      return -1;
    }
    if (parsed > 0 && !visit(record)) break;
  }
  return 0;
}

}  // namespace oxa::internal

#endif  // OXA_SRC_UTIL_PROC_PARSE_H_
