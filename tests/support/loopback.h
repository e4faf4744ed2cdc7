// Loopback sockets for the tests: owned descriptors, listeners on port 0 and
// connected pairs.
#ifndef OXA_TESTS_SUPPORT_LOOPBACK_H_
#define OXA_TESTS_SUPPORT_LOOPBACK_H_

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "oxa_addr.h"
#include "oxa_socket.h"

#include "support/test_support.h"

namespace oxa_test {

// Owns one descriptor and closes it.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Reset();
      fd_ = other.Release();
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int Release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void Reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// True when an IPv6 socket can be bound to ::1 on this host.
inline bool Ipv6LoopbackAvailable() {
  UniqueFd fd(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) return false;
  sockaddr_in6 addr{};
  addr.sin6_family = AF_INET6;
  addr.sin6_addr = in6addr_loopback;
  return ::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
}

// The loopback address of a family (2 or 10) with a port.
inline OXA_ADDR_T Loopback(int af, unsigned short port) {
  OXA_ADDR_T addr;
  OXA_MakeAddrByString(af, af == AF_INET6 ? "::1" : "127.0.0.1", port, &addr);
  return addr;
}

// A socket of `type` bound to the loopback address of `af` on a port the system chose; `addr`
// receives the bound address (port included). Stream sockets also listen.
inline UniqueFd BoundLoopback(int af, int type, OXA_ADDR_T* addr, int backlog = 8) {
  UniqueFd fd(OXA_CreateSocket(af, type | SOCK_CLOEXEC, 0));
  OXA_ADDR_T local = Loopback(af, 0);
  if (!fd || OXA_Bind(fd.get(), &local) != 0) return UniqueFd();
  if (type == SOCK_STREAM && OXA_Listen(fd.get(), backlog) != 0) return UniqueFd();
  if (OXA_GetAddrBySockFd(fd.get(), addr, nullptr) != 0) return UniqueFd();
  return fd;
}

// Both ends of a TCP connection over loopback.
struct TcpPair {
  UniqueFd client;
  UniqueFd server;
};

inline TcpPair ConnectedPair(int af = AF_INET) {
  TcpPair pair;
  OXA_ADDR_T addr;
  UniqueFd listener = BoundLoopback(af, SOCK_STREAM, &addr);
  if (!listener) return pair;
  UniqueFd client(OXA_CreateSocket(af, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!client || OXA_ConnectWithTimeOut(client.get(), &addr, kHangGuardMs) != 0) return pair;
  UniqueFd server(OXA_Accept(listener.get(), nullptr, kHangGuardMs));
  if (!server) return pair;
  pair.client = std::move(client);
  pair.server = std::move(server);
  return pair;
}

}  // namespace oxa_test

#endif  // OXA_TESTS_SUPPORT_LOOPBACK_H_
