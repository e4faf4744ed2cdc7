// A host report: name, adapters and their addresses, processor times, memory, a fresh unique
// identifier and the traffic counters of every interface. Compare it with `ip addr`,
// /proc/stat, /proc/meminfo and /proc/net/dev on the same machine.
#include <cstdio>
#include <vector>

#include "oxa_addr.h"
#include "oxa_frame.h"
#include "oxa_netflow.h"
#include "oxa_netinfo.h"
#include "oxa_sysinfo.h"

namespace {

void PrintAdapter(const OXA_ADAPTER_INFO_T& adapter) {
  std::printf("  %-8s position %u, mac %02x:%02x:%02x:%02x:%02x:%02x\n", adapter.name,
              adapter.index, adapter.mac[0], adapter.mac[1], adapter.mac[2], adapter.mac[3],
              adapter.mac[4], adapter.mac[5]);
  for (const OXA_IPV4_NODE_T* v4 = adapter.ipv4List; v4 != nullptr; v4 = v4->next)
    std::printf("    inet  %-15s mask %s\n", v4->ip, v4->mask);
  for (const OXA_IPV6_NODE_T* v6 = adapter.ipv6List; v6 != nullptr; v6 = v6->next) {
    char text[64] = {};
    OXA_InetNtop(10, v6->ip, text, sizeof text - 1);
    std::printf("    inet6 %s\n", text);
  }
}

void PrintAdapters() {
  OXA_ADAPTER_INFO_T* adapters = nullptr;
  int af = 0;
  if (OXA_GetAdapterInfoEx(&adapters, &af) != 0) {
    std::printf("adapters: OXA_GetAdapterInfoEx failed\n");
    return;
  }
  std::printf("adapters (IPv4 interfaces; preferred family %d, %s):\n", af,
              af == OXA_AF_DUAL ? "dual stack"
              : af == 2         ? "IPv4 only"
                                : "IPv6 only");
  for (const OXA_ADAPTER_INFO_T* a = adapters; a != nullptr; a = a->next)
    PrintAdapter(*a);
  OXA_FreeAdapterInfo(adapters);
}

// Counters in clock ticks, named as the /proc/stat columns they come from.
void PrintProcessorTimes() {
  const int processors = OXA_GetCPUNumber();
  std::vector<OXA_CPU_TIMES> times(static_cast<size_t>(processors > 0 ? processors : 1));
  unsigned int size = static_cast<unsigned int>(times.size() * sizeof(OXA_CPU_TIMES));
  if (OXA_GetCPUPerformance(times.data(), &size) != 0) {
    std::printf("processor times: OXA_GetCPUPerformance failed (needs %u bytes)\n", size);
    return;
  }
  std::printf("processor times (%d processors, clock ticks):\n", processors);
  std::printf("  %-5s %12s %10s %12s %14s %12s\n", "cpu", "user+nice", "system", "idle",
              "idle+iowait", "irq+softirq");
  for (size_t i = 0; i < times.size(); ++i) {
    const OXA_CPU_TIMES& t = times[i];
    std::printf("  cpu%-2zu %12llu %10llu %12llu %14llu %12llu\n", i, t.uUser, t.uSystem, t.uIdle,
                t.uIdleTotal, t.uInterrupt);
  }
}

void PrintMemory() {
  OXA_MEMORY_STATUS memory;
  if (OXA_GetMemoryStatus(&memory) != 0) {
    std::printf("memory: OXA_GetMemoryStatus failed\n");
    return;
  }
  std::printf("memory (kB, as /proc/meminfo shows it):\n");
  std::printf("  MemTotal %llu, MemAvailable %llu, SwapTotal %llu, SwapFree %llu\n",
              memory.uTotal / 1024, memory.uAvailable / 1024, memory.uSwapTotal / 1024,
              memory.uSwapFree / 1024);
}

void PrintUuid() {
  unsigned char uuid[OXA_UUID_SIZE];
  char text[OXA_UUID_TEXT_LENGTH + 1];
  if (OXA_GetUUID(uuid) != 0 || OXA_StringFromUUID(uuid, text, sizeof text) != 0) {
    std::printf("uuid: failed\n");
    return;
  }
  std::printf("fresh uuid: %s\n", text);
}

// The needed size comes back from the first call; an interface that appears in between only
// makes the loop go round once more.
void PrintFlows() {
  std::vector<OXA_NETFLOW_DATA> flows;
  unsigned int size = 0;
  for (int attempt = 0; attempt < 3; ++attempt) {
    flows.resize(size / sizeof(OXA_NETFLOW_DATA));
    if (OXA_GetNetWorkFlowDataEx(flows.data(), &size) == 0) break;
    if (size <= flows.size() * sizeof(OXA_NETFLOW_DATA)) {
      std::printf("traffic: OXA_GetNetWorkFlowDataEx failed\n");
      return;
    }
  }
  flows.resize(size / sizeof(OXA_NETFLOW_DATA));
  std::printf("traffic since the interfaces came up:\n");
  std::printf("  %-8s %14s %10s %6s %14s %10s %6s\n", "name", "rx bytes", "rx pkts", "rx err",
              "tx bytes", "tx pkts", "tx err");
  for (const OXA_NETFLOW_DATA& f : flows) {
    std::printf("  %-8s %14llu %10llu %6llu %14llu %10llu %6llu\n", f.szName, f.uRecvBytes,
                f.uRecvPackets, f.uRecvErrors, f.uSendBytes, f.uSendPackets, f.uSendErrors);
  }
}

}  // namespace

int main() {
  // Line by line, so that the library's own lines on standard error fall into place.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (OXA_InitEx() != 0) return 1;
  char name[256];
  if (OXA_GetHostName(name, sizeof name) == 0) std::printf("host name: %s\n", name);
  PrintAdapters();
  PrintProcessorTimes();
  PrintMemory();
  PrintUuid();
  PrintFlows();
  OXA_Fini();
  return 0;
}
