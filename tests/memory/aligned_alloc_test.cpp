#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "oxa_memory.h"

namespace {

uintptr_t Address(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// The heap buffer's start, kept in the word before the returned address.
uintptr_t StartOf(const void* p) { return reinterpret_cast<const uintptr_t*>(p)[-1]; }

TEST(AlignedMalloc, ReturnsZeroedMemoryAtTheFirstAlignedAddressAfterTheStartWord) {
  for (unsigned int alignment : {1u, 2u, 4u, 8u, 16u, 64u, 4096u}) {
    auto* p = static_cast<unsigned char*>(OXA_AlignedMalloc(100, alignment));
    ASSERT_NE(nullptr, p) << alignment;
    const uintptr_t first = StartOf(p) + sizeof(uintptr_t);  // right after the start word
    EXPECT_EQ((first + alignment - 1) / alignment * alignment, Address(p)) << alignment;
    const unsigned char zeros[100] = {};
    EXPECT_EQ(0, memcmp(zeros, p, sizeof zeros)) << alignment;
    OXA_AlignedFree(p);
  }
  void* empty = OXA_AlignedMalloc(0, 32);
  ASSERT_NE(nullptr, empty);
  OXA_AlignedFree(empty);
}

TEST(AlignedMalloc, RejectsZeroAndNonPowersOfTwoWithEinval) {
  for (unsigned int alignment : {0u, 3u, 24u, 100u, 0x7FFFFFFFu}) {
    errno = 0;
    EXPECT_EQ(nullptr, OXA_AlignedMalloc(16, alignment)) << alignment;
    EXPECT_EQ(EINVAL, errno) << alignment;
  }
  if (sizeof(void*) == 4) {  // only there can size + alignment + the start word wrap around
    EXPECT_EQ(nullptr, OXA_AlignedMalloc(0xFFFFFFF0u, 64));
    EXPECT_EQ(ENOMEM, errno);
  }
}

// Documented contract: alignments from 2^31 up never return. Checked in a child process that
// is still running well after a bad alignment would have been refused.
TEST(AlignedMalloc, AnAlignmentWithTheTopBitSetNeverReturns) {
  const pid_t child = fork();
  ASSERT_NE(-1, child);
  if (child == 0) {
    OXA_AlignedMalloc(16, 0x80000000u);
    _exit(0);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // a bound, not a handshake
  int status = 0;
  EXPECT_EQ(0, waitpid(child, &status, WNOHANG));
  kill(child, SIGKILL);
  EXPECT_EQ(child, waitpid(child, &status, 0));
}

}  // namespace
