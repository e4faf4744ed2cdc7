// A loopback round trip driven by socket events: a listener and a client on 127.0.0.1, every
// step (accept, connect, read, close) found by one multiple wait and named by the event.
#include <errno.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "oxa_addr.h"
#include "oxa_event.h"
#include "oxa_frame.h"
#include "oxa_socket.h"

namespace {

constexpr int kWaitMs = 2000;  // every wait ends, even when the other side never answers
constexpr int kMessages = 3;

const char* BitName(int bit) {
  switch (bit) {
    case OXA_FD_READ:
      return "READ";
    case OXA_FD_WRITE:
      return "WRITE";
    case OXA_FD_ACCEPT:
      return "ACCEPT";
    case OXA_FD_CONNECT:
      return "CONNECT";
    case OXA_FD_CLOSE:
      return "CLOSE";
    default:
      return "nothing";
  }
}

// The three sockets of the trip and the event that watches each; -1 and null while absent.
struct Trip {
  int fd[3] = {-1, -1, -1};
  OXA_EVENT_HANDLE event[3] = {nullptr, nullptr, nullptr};
  const char* name[3] = {"listener", "client", "server"};

  Trip() = default;
  Trip(const Trip&) = delete;
  Trip& operator=(const Trip&) = delete;
  ~Trip() {
    for (int i = 0; i < 3; ++i) {
      if (event[i] != nullptr) OXA_CloseEvent(event[i]);
      if (fd[i] != -1) OXA_CloseSocket(fd[i], 0);
    }
  }
};

enum Side { kListener = 0, kClient = 1, kServer = 2 };

// One multiple wait over the watched sockets. Returns the side that fired and stores the
// network-event bit it reported; -1 on time-out.
int WaitStep(const Trip& trip, const OXA_EVENT_HANDLE* watched, int* bit) {
  const unsigned int index = OXA_WaitForMultipleObjects(3, watched, 0, kWaitMs);
  if (index >= 3) {
    std::printf("  no event within %d ms (result 0x%X)\n", kWaitMs, index);
    return -1;
  }
  OXA_NETWORKEVENTS found;
  std::memset(&found, 0, sizeof found);
  OXA_EnumNetworkEvents(trip.fd[index], trip.event[index], &found);
  *bit = found.lNetworkEvents;
  std::printf("  wait -> %-8s %s", trip.name[index], BitName(*bit));
  if (*bit == OXA_FD_CONNECT) std::printf(" (error slot %d)", found.iErrorCode[OXA_FD_CONNECT_BIT]);
  std::printf("\n");
  return static_cast<int>(index);
}

// Creates a socket event for side and puts it on the watch list.
bool Watch(Trip* trip, OXA_EVENT_HANDLE* watched, Side side, int bits) {
  if (trip->event[side] == nullptr) trip->event[side] = OXA_CreateEvent(0);
  if (trip->event[side] == nullptr) return false;
  if (OXA_EventSelect(trip->fd[side], trip->event[side], bits) != 0) return false;
  watched[side] = trip->event[side];
  return true;
}

bool Listen(Trip* trip, OXA_ADDR_T* where) {
  trip->fd[kListener] = OXA_CreateSocket(2, SOCK_STREAM, 0);
  if (trip->fd[kListener] == -1) return false;
  OXA_MakeAddrByString(2, "127.0.0.1", 0, where);
  if (OXA_Bind(trip->fd[kListener], where) != 0 || OXA_Listen(trip->fd[kListener], 4) != 0)
    return false;
  OXA_GetAddrBySockFd(trip->fd[kListener], where, nullptr);  // port 0 became a real port
  std::printf("1. listening on %s port %u\n", OXA_GetAddrString(where), OXA_GetAddrPort(where));
  return true;
}

// The client's socket event makes the socket non-blocking, so connect only starts the
// handshake; the listener's ACCEPT and the client's CONNECT report its end.
bool Connect(Trip* trip, OXA_EVENT_HANDLE* watched, const OXA_ADDR_T& server) {
  trip->fd[kClient] = OXA_CreateSocket(2, SOCK_STREAM, 0);
  if (trip->fd[kClient] == -1 || !Watch(trip, watched, kClient, OXA_FD_CONNECT)) return false;
  const int rc = connect(trip->fd[kClient], &server.sa, sizeof(sockaddr_in));
  const int connect_errno = errno;
  std::printf("2. client connect: %s\n", rc == 0                        ? "done at once"
                                         : connect_errno == EINPROGRESS ? "in progress"
                                                                        : "failed");
  if (rc != 0 && connect_errno != EINPROGRESS) return false;
  int seen = 0;
  while (seen != (OXA_FD_ACCEPT | OXA_FD_CONNECT)) {
    int bit = 0;
    const int side = WaitStep(*trip, watched, &bit);
    if (side < 0) return false;
    seen |= bit;
    if (bit == OXA_FD_ACCEPT) {
      OXA_ADDR_T peer;
      trip->fd[kServer] = OXA_Accept(trip->fd[kListener], &peer, kWaitMs);
      if (trip->fd[kServer] == -1) return false;
      std::printf("     accepted %s port %u\n", OXA_GetAddrString(&peer), OXA_GetAddrPort(&peer));
      watched[kListener] = nullptr;  // no second client comes
      if (!Watch(trip, watched, kServer, OXA_FD_READ | OXA_FD_CLOSE)) return false;
    } else if (bit == OXA_FD_CONNECT) {
      // From now on the client only waits for what the server sends back.
      if (!Watch(trip, watched, kClient, OXA_FD_READ | OXA_FD_CLOSE)) return false;
    }
  }
  return true;
}

// Waits until `side` reports `want`; anything else is a failure of the tour.
bool Expect(const Trip& trip, const OXA_EVENT_HANDLE* watched, Side side, int want) {
  int bit = 0;
  return WaitStep(trip, watched, &bit) == side && bit == want;
}

bool Echo(const Trip& trip, const OXA_EVENT_HANDLE* watched) {
  std::printf("3. %d messages, each echoed:\n", kMessages);
  for (int i = 1; i <= kMessages; ++i) {
    char message[32];
    const int length = std::snprintf(message, sizeof message, "message %d", i);
    if (OXA_Sendn(trip.fd[kClient], message, length, kWaitMs) != length) return false;
    std::printf("  client sent \"%s\"\n", message);
    if (!Expect(trip, watched, kServer, OXA_FD_READ)) return false;
    char got[32] = {};
    const int n = OXA_RecvWithTimeOut(trip.fd[kServer], got, sizeof got - 1, kWaitMs);
    if (n <= 0 || OXA_Sendn(trip.fd[kServer], got, n, kWaitMs) != n) return false;
    std::printf("  server read \"%s\" and sent it back\n", got);
    if (!Expect(trip, watched, kClient, OXA_FD_READ)) return false;
    char back[32] = {};
    if (OXA_Recvn(trip.fd[kClient], back, n, kWaitMs) != n) return false;
    std::printf("  client read \"%s\"\n", back);
  }
  return true;
}

// The client stops sending; the server sees CLOSE, closes its side, and the client sees it.
bool Close(Trip* trip, OXA_EVENT_HANDLE* watched) {
  std::printf("4. client shuts its sending side down\n");
  OXA_ShutDown(trip->fd[kClient], SHUT_WR);
  if (!Expect(*trip, watched, kServer, OXA_FD_CLOSE)) return false;
  std::printf("  server closes its socket\n");
  watched[kServer] = nullptr;
  OXA_CloseEvent(trip->event[kServer]);
  trip->event[kServer] = nullptr;
  OXA_CloseSocket(trip->fd[kServer], 1);
  trip->fd[kServer] = -1;
  return Expect(*trip, watched, kClient, OXA_FD_CLOSE);
}

bool Tour() {
  std::printf(
      "(each OXA_EnumNetworkEvents below also prints a \"trovik ... iPipeFd[0] == -1\" line on\n"
      " standard error: its inner single wait finds no pipe in a socket event, as documented)\n");
  Trip trip;
  OXA_EVENT_HANDLE watched[3] = {nullptr, nullptr, nullptr};
  OXA_ADDR_T server;
  if (!Listen(&trip, &server) || !Watch(&trip, watched, kListener, OXA_FD_ACCEPT)) return false;
  if (!Connect(&trip, watched, server)) return false;
  if (!Echo(trip, watched)) return false;
  if (!Close(&trip, watched)) return false;
  std::printf("5. round trip complete\n");
  return true;
}

}  // namespace

int main() {
  // Line by line, so that the library's own lines on standard error fall into place.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (OXA_InitEx() != 0) return 1;
  const bool ok = Tour();
  if (!ok) std::printf("round trip FAILED (errno %d)\n", errno);
  OXA_Fini();
  return ok ? 0 : 1;
}
