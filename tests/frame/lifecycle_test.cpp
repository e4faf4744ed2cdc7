#include <gtest/gtest.h>

#include <signal.h>

#include <thread>

#include "oxa_addr.h"
#include "oxa_frame.h"

#include "support/test_support.h"

extern "C" int oxa_c_api_smoke(void);

namespace {

TEST(CInterface, CallsFromCSucceed) { EXPECT_EQ(0, oxa_c_api_smoke()); }

TEST(Version, NumberAndText) {
  EXPECT_EQ(16842764u, OXA_GetOXAVersion());
  EXPECT_STREQ("version: 1.1.15.460672", pVersion);
}

// Fresh process: nothing started, so nothing can be set; the first start makes the value
// per-thread, and the last stop takes it away again.
TEST(LastError, NeedsAStartedLibraryIsPerThreadAndGoesWithTheLastStop) {
  EXPECT_EQ(0u, OXA_GetLastError());
  EXPECT_EQ(-1, OXA_SetLastError(5));
  EXPECT_EQ(0u, OXA_GetLastError());
  EXPECT_FALSE(oxa::g_bOxaCreateTlsKeySuccess);
  ASSERT_EQ(0, OXA_Init());
  EXPECT_TRUE(oxa::g_bOxaCreateTlsKeySuccess);
  EXPECT_EQ(0, OXA_SetLastError(7));
  unsigned int other = 99;
  std::thread([&] { other = OXA_GetLastError(); }).join();
  EXPECT_EQ(0u, other);
  EXPECT_EQ(7u, OXA_GetLastError());
  EXPECT_EQ(0, OXA_Fini());
  EXPECT_EQ(0u, OXA_GetLastError());
  EXPECT_EQ(-1, OXA_SetLastError(1));
}

TEST(Lifecycle, FirstStartIgnoresSigpipeAndNestedStartsShareIt) {
  signal(SIGPIPE, SIG_DFL);
  ASSERT_EQ(0, OXA_Init());
  struct sigaction current {};
  sigaction(SIGPIPE, nullptr, &current);
  EXPECT_EQ(SIG_IGN, current.sa_handler);
  ASSERT_EQ(0, OXA_InitEx());
  EXPECT_EQ(0, OXA_Fini());
  EXPECT_EQ(0, OXA_SetLastError(3)) << "modules must stay up until the last stop";
  EXPECT_EQ(0, OXA_FiniEx());
  EXPECT_EQ(-1, OXA_SetLastError(3));
}

TEST(Lifecycle, UnmatchedStopWrapsTheCountWithoutGuard) {
  EXPECT_EQ(0, OXA_Fini());  // count 0 -> 0xFFFFFFFF
  EXPECT_EQ(0, OXA_Init());  // count back to 0, nothing started
  EXPECT_EQ(-1, OXA_SetLastError(1));
  EXPECT_EQ(0, OXA_Init());  // a real start again
  EXPECT_EQ(0, OXA_SetLastError(1));
  EXPECT_EQ(0, OXA_Fini());
}

TEST(Lifecycle, ConcurrentStartsAndStopsBalance) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 25;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < kRounds; ++i) {
        OXA_Init();
        OXA_Fini();
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(-1, OXA_SetLastError(1)) << "every start was matched: the library is stopped";
}

TEST(Lifecycle, EveryStartRefreshesTheDefaultFamilyQuickly) {
  oxa_test::DefaultFamilyRestorer restore;
  g_Af = 0;
  oxa_test::Stopwatch watch;
  ASSERT_EQ(0, OXA_Init());
  // Every host has loopback, so at least one family is found.
  EXPECT_TRUE(g_Af == 2 || g_Af == 10 || g_Af == 101) << g_Af;
  g_Af = 0;
  ASSERT_EQ(0, OXA_InitEx());  // nested starts refresh it too
  EXPECT_NE(0, g_Af);
  // The adapter query must not wait out its 3-second netlink time-out; it takes milliseconds.
  EXPECT_LT(watch.Elapsed().count(), 2900);
  EXPECT_EQ(0, OXA_Fini());
  EXPECT_EQ(0, OXA_Fini());
}

}  // namespace
