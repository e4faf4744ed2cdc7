// Network-flow counters: the per-interface totals of "/proc/net/dev".
#include <errno.h>
#include <string.h>

#include <new>
#include <vector>

#include "oxa_netflow.h"

#include "util/proc_file.h"
#include "util/proc_parse.h"

using oxa::internal::ForEachFlow;
using oxa::internal::ProcFile;

static_assert(sizeof(OXA_NETFLOW_DATA) == 144, "flow record is ABI");

namespace {

// Every interface of the file; 0, or -1 with errno.
int ReadAllFlows(std::vector<OXA_NETFLOW_DATA>* flows) {
  ProcFile dev("/proc/net/dev");
  if (dev.get() == nullptr) return OXA_ERROR;
  try {
    return ForEachFlow(dev.get(), [flows](const OXA_NETFLOW_DATA& record) {
      flows->push_back(record);
      return true;
    });
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return OXA_ERROR;
  }
}

}  // namespace

extern "C" {

OXA_API int OXA_GetNetWorkFlowData(const char* name, OXA_NETFLOW_DATA* data) {
  if (name == nullptr || data == nullptr) return OXA_ERROR;
  ProcFile dev("/proc/net/dev");
  if (dev.get() == nullptr) return OXA_ERROR;
  bool found = false;
  const int parsed = ForEachFlow(dev.get(), [&](const OXA_NETFLOW_DATA& record) {
    found = strcmp(record.szName, name) == 0;
    if (found) *data = record;
    return !found;
  });
  if (parsed != 0) return OXA_ERROR;
  if (!found) errno = ENODEV;
  return found ? 0 : OXA_ERROR;
}

OXA_API int OXA_GetNetWorkFlowDataEx(OXA_NETFLOW_DATA* records, unsigned int* size) {
  if (size == nullptr) return OXA_ERROR;
  std::vector<OXA_NETFLOW_DATA> flows;
  if (ReadAllFlows(&flows) != 0) return OXA_ERROR;
  const unsigned int needed = static_cast<unsigned int>(flows.size() * sizeof(OXA_NETFLOW_DATA));
  const bool room = needed <= *size;
  *size = needed;
  if (!room || records == nullptr) return OXA_ERROR;
  if (!flows.empty()) memcpy(records, flows.data(), needed);
  return 0;
}

}  // extern "C"
