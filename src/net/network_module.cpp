// The network module's start and stop hooks, run by library start-up and shut-down.
#include <signal.h>
#include <string.h>

#include "oxa_socket.h"

// Writing to a closed connection must give EPIPE, not end the process.
OXA_API int OXA_InitNetwork_Inter() {
  struct sigaction ignore;
  memset(&ignore, 0, sizeof ignore);
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  ignore.sa_flags = 0;
  sigaction(SIGPIPE, &ignore, nullptr);
  return 0;
}

// The module keeps no state: nothing to undo.
OXA_API int OXA_FiniNetwork_Inter() { return 0; }
