#include <gtest/gtest.h>

#include <malloc.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "oxa_trace.h"

#include "support/test_support.h"

namespace {

using oxa_test::OnFreshThread;
using oxa_test::TraceInfo;

oxa::oxa_tlsTraceInfoOper& Trace() { return oxa::oxa_tlsTraceInfoOper::instance(); }

bool Same(const OXA_TRACEINFO& a, const OXA_TRACEINFO& b) { return memcmp(&a, &b, sizeof a) == 0; }

// Set, overwrite, read back whole, erase; another thread sees none of it; a 65-character text
// comes back as its first 64 characters.
TEST(TraceContext, SetGetEraseArePerThreadAndKeep64Characters) {
  OnFreshThread([] {
    OXA_TRACEINFO out;
    memset(&out, 0xAB, sizeof out);
    EXPECT_EQ(-1, Trace().getTraceInfo(&out));
    EXPECT_TRUE(Same(OXA_TRACEINFO{}, out)) << "no context reads as zeroes";
    for (const OXA_TRACEINFO& in :
         {TraceInfo("req-1", "user", "span", 7, 200), TraceInfo("req-2", "", "", 1, 2)}) {
      ASSERT_EQ(0, Trace().setTraceInfo(in));  // the second overwrites in place
      ASSERT_EQ(0, Trace().getTraceInfo(&out));
      EXPECT_TRUE(Same(in, out)) << in.text1;
    }
    int other = 0;
    std::thread([&] { other = Trace().getTraceInfo(&out); }).join();
    EXPECT_EQ(-1, other);
    EXPECT_EQ(0, Trace().eraseTraceInfo());
    EXPECT_EQ(-1, Trace().getTraceInfo(&out));
    EXPECT_EQ(0, Trace().eraseTraceInfo());  // twice is harmless

    OXA_TRACEINFO in{};
    memset(in.text1, 'x', sizeof in.text1);  // 65 characters, no terminator in the field
    ASSERT_EQ(0, Trace().setTraceInfo(in));
    memset(&out, 0x5A, sizeof out);
    ASSERT_EQ(0, Trace().getTraceInfo(&out));
    EXPECT_EQ(std::string(64, 'x'), std::string(out.text1, 64));
    EXPECT_EQ(0x5A, static_cast<unsigned char>(out.text1[64])) << "the 65th byte is not written";
    Trace().eraseTraceInfo();
  });
  oxa_test::StderrCapture capture;
  EXPECT_EQ(-1, Trace().getTraceInfo(nullptr));
  EXPECT_EQ("traceInfo is null ptr\r\n", capture.Take());
}

TEST(TraceContext, ManyThreadsSetAndEraseConcurrently) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i) {
        const std::string tag = std::to_string(t) + ":" + std::to_string(i);
        ASSERT_EQ(0, Trace().setTraceInfo(TraceInfo(tag, "", "", 0, 0)));
        OXA_TRACEINFO out;
        ASSERT_EQ(0, Trace().getTraceInfo(&out));
        ASSERT_EQ(tag, out.text1);
        if (i % 2 == 0) Trace().eraseTraceInfo();
      }
      Trace().eraseTraceInfo();
    });
  }
  for (auto& thread : threads)
    thread.join();
}

// A thread that ends without erasing its context does not leave it behind: thousands of
// short-lived threads the library never started do not grow the heap.
TEST(TraceContext, ContextOfAnEndedThreadIsReclaimed) {
  const auto set_once = [] { Trace().setTraceInfo(TraceInfo("short", "lived", "thread", 1, 2)); };
  OnFreshThread(set_once);  // warms up whatever the first thread allocates once
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < 2000; ++i)
    OnFreshThread(set_once);
  const size_t after = mallinfo2().uordblks;
  EXPECT_LT(after, before + 64 * 1024) << "about 300 bytes per thread would stay";
}

}  // namespace
