// The address text parsers: dotted quad, colon hex and host:port text, with round trips
// through the printers.
#include <arpa/inet.h>
#include <string.h>

#include <string>

#include "oxa_addr.h"
#include "oxa_netclass.h"

#include "fuzz_input.h"

namespace {

void CheckPtonNtop(const char* text) {
  unsigned char bytes[16] = {};
  if (OXA_InetPton(text, bytes) != 0) return;
  const bool v6 = strchr(text, ':') != nullptr;
  char printed[128];
  memset(printed, 0, sizeof printed);
  OXA_FUZZ_CHECK(OXA_InetNtop(v6 ? AF_INET6 : AF_INET, bytes, printed, 64) == printed);
  unsigned char again[16] = {};
  OXA_FUZZ_CHECK(OXA_InetPton(printed, again) == 0);
  if (!v6 || strchr(printed, ':') != nullptr) {
    OXA_FUZZ_CHECK(memcmp(bytes, again, v6 ? 16 : 4) == 0);
  } else {
    // IPv4-compatible and mapped addresses print their last four bytes only.
    OXA_FUZZ_CHECK(memcmp(bytes + 12, again, 4) == 0);
  }
}

void CheckMakeAddr(const char* text, int family) {
  OXA_ADDR_T addr;
  memset(&addr, 0xAB, sizeof addr);
  const int result = OXA_MakeAddrByString(family, text, 4321, &addr);
  if (result != 0) return;
  const int type = OXA_GetAddrType(&addr);
  OXA_FUZZ_CHECK(type == AF_INET || type == AF_INET6);
  OXA_FUZZ_CHECK(OXA_GetAddrPort(&addr) == 4321);
  char printed[64];
  OXA_FUZZ_CHECK(OXA_GetAddrStringEx(&addr, printed, sizeof printed) == printed);
}

void CheckHostPort(const char* text) {
  oxa::oxa_net_addr addr(text);
  char printed[32];
  int length = sizeof printed;
  if (addr.get_addr(printed, length) == nullptr) return;
  OXA_FUZZ_CHECK(length == static_cast<int>(strlen(printed)));
  oxa::oxa_net_addr again(printed);
  OXA_FUZZ_CHECK(again == addr || strchr(text, ':') == nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  oxa_fuzz::Input input(data, size);
  const int families[] = {AF_INET, AF_INET6, 101, 102, 7};
  const int family = families[input.Byte() % 5];
  std::string text = input.Rest();
  const char* c_text = text.c_str();
  CheckPtonNtop(c_text);
  CheckMakeAddr(c_text, family);
  CheckHostPort(c_text);
  unsigned int ip = 0;
  ipv4_to_i(c_text, &ip);
  const int field = ipv6_address_field_type_get(c_text);
  OXA_FUZZ_CHECK(field >= -1 && field <= 2);
  std::string trimmed = text.c_str();
  string_white_space_trim(&trimmed[0]);
  OXA_FUZZ_CHECK(strlen(trimmed.c_str()) <= strlen(c_text));
  return 0;
}
