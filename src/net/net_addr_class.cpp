// oxa::oxa_net_addr: an IPv4 socket address with host:port text.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

#include <sstream>
#include <string>

#include "oxa_netclass.h"

namespace oxa {

namespace {

constexpr int kPortLimit = 65536;
// A host part this short cannot be a dotted quad and leaves the address alone.
constexpr size_t kShortestHost = 7;

sockaddr_in DefaultAddress() {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  return addr;
}

}  // namespace

oxa_net_addr::oxa_net_addr() : addr_(DefaultAddress()) {}

oxa_net_addr::oxa_net_addr(int port, const char* host) : addr_(DefaultAddress()) {
  addr_.sin_port = htons(static_cast<uint16_t>(port));
  if (host != nullptr) addr_.sin_addr.s_addr = inet_addr(host);
}

oxa_net_addr::oxa_net_addr(const sockaddr_in& addr) : addr_(addr) {}

oxa_net_addr::oxa_net_addr(const char* url) : addr_{} { parse_url(url); }

oxa_net_addr::oxa_net_addr(const oxa_net_addr& other) : addr_(other.addr_) {}

oxa_net_addr& oxa_net_addr::operator=(const oxa_net_addr& other) {
  if (this != &other) addr_ = other.addr_;
  return *this;
}

oxa_net_addr::~oxa_net_addr() = default;

int oxa_net_addr::set_addr(const char* url) { return parse_url(url); }

int oxa_net_addr::parse_url(const char* text) {
  if (text == nullptr) return 0;
  addr_.sin_family = AF_INET;
  const char* colon = strrchr(text, ':');
  if (colon == nullptr) return 0;
  const size_t host_length = static_cast<size_t>(colon - text);
  if (host_length >= kShortestHost) {
    addr_.sin_addr.s_addr = inet_addr(std::string(text, host_length).c_str());
  }
  if (colon[1] != '\0') {
    std::istringstream port_text(colon + 1);
    unsigned short port = 0;
    port_text >> port;  // a failed extraction leaves 0 (or the limit, when out of range)
    addr_.sin_port = htons(port);
  }
  return 0;
}

int oxa_net_addr::set_port(int port) {
  if (port >= kPortLimit) return -1;
  addr_.sin_port = htons(static_cast<uint16_t>(port));
  return 0;
}

int oxa_net_addr::set_host(const char* host) {
  if (host == nullptr) return -1;
  addr_.sin_addr.s_addr = inet_addr(host);
  return 0;
}

int oxa_net_addr::set_addr(int port, const char* host) {
  if (set_port(port) != 0) return -1;
  if (host != nullptr) set_host(host);
  return 0;
}

int oxa_net_addr::set_addr(sockaddr_in addr) {
  addr_ = addr;
  return 0;
}

bool oxa_net_addr::is_valid_ipv4(const char* text) const { return text != nullptr; }

int oxa_net_addr::get_port() const { return ntohs(addr_.sin_port); }

const char* oxa_net_addr::get_host() const {
  return inet_ntoa(addr_.sin_addr);  // NOLINT(concurrency-mt-unsafe): the documented buffer
}

int oxa_net_addr::get_addr(sockaddr_in& addr) const {
  addr = addr_;
  return 0;
}

int oxa_net_addr::get_addr(in_addr& addr) const {
  addr = addr_.sin_addr;
  return 0;
}

char* oxa_net_addr::get_addr(char* buffer, int& length) const {
  if (buffer == nullptr || length == 0) return nullptr;
  char text[32];  // "255.255.255.255:65535" at the most
  const int text_length = snprintf(text, sizeof text, "%s:%d", get_host(), get_port());
  if (length <= text_length) return nullptr;
  memcpy(buffer, text, static_cast<size_t>(text_length) + 1);
  length = text_length;
  return buffer;
}

bool operator==(const oxa_net_addr& a, const oxa_net_addr& b) {
  sockaddr_in x, y;
  a.get_addr(x);
  b.get_addr(y);
  return x.sin_family == y.sin_family && x.sin_port == y.sin_port &&
         x.sin_addr.s_addr == y.sin_addr.s_addr;
}

bool operator!=(const oxa_net_addr& a, const oxa_net_addr& b) { return !(a == b); }

}  // namespace oxa
