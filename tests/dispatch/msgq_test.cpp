#include <gtest/gtest.h>

#include <string.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "oxa_frame.h"
#include "oxa_msgq.h"

#include "dispatch/msgq_table.h"
#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
using oxa_test::Stopwatch;
using std::chrono::milliseconds;

OXA_MQ_MSG Message(int priority, const char* text, unsigned int type = 0) {
  OXA_MQ_MSG msg;
  msg.type = type;
  msg.priority = priority;
  msg.length = static_cast<int>(strlen(text));
  memcpy(msg.data, text, strlen(text));
  return msg;
}

// Receives into a full-size buffer; "" and the result on failure.
std::string Receive(OXA_MQ_HANDLE queue, int* result, unsigned int timeout_ms = kHangGuardMs) {
  OXA_MQ_MSG msg;
  msg.length = OXA_MQ_MAX_MSG_LEN;
  *result = OXA_MsgQReceiveEx(queue, &msg, timeout_ms);
  return *result == 0 ? std::string(msg.data, static_cast<size_t>(msg.length)) : std::string();
}

std::string Receive(OXA_MQ_HANDLE queue) {
  int result = 0;
  std::string text = Receive(queue, &result);
  EXPECT_EQ(0, result);
  return text;
}

// Waits (bounded) until `n` threads are inside a receive on the queue.
bool WaitForReceivers(OXA_MQ_HANDLE queue, uint32_t n) {
  return oxa_test::Eventually([&] { return queue->receivers.load() == n; });
}

class MsgQ : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, OXA_Init());
    ASSERT_EQ(0, OXA_MsgQCreateEx(&queue_));
  }
  void TearDown() override {
    OXA_MsgQDestroyEx(queue_);
    OXA_Fini();
  }
  OXA_MQ_HANDLE queue_ = nullptr;
};

TEST_F(MsgQ, DeliversByPriorityThenInSendingOrder) {
  const int priorities[] = {1, 5, 5, 3, -2, 5, 1, 7};
  const char* texts[] = {"1a", "5a", "5b", "3a", "-2a", "5c", "1b", "7a"};
  for (int i = 0; i < 8; ++i) {
    const OXA_MQ_MSG msg = Message(priorities[i], texts[i], 100 + static_cast<unsigned>(i));
    ASSERT_EQ(0, OXA_MsgQSendEx(queue_, &msg));
  }
  for (const char* expected : {"7a", "5a", "5b", "5c", "3a", "1a", "1b", "-2a"}) {
    EXPECT_EQ(expected, Receive(queue_));
  }
  // Type and priority travel with the payload; priorities come back after the queue emptied.
  const OXA_MQ_MSG sent = Message(9, "x", 0xABCDEF01u);
  ASSERT_EQ(0, OXA_MsgQSendEx(queue_, &sent));
  OXA_MQ_MSG got;
  got.length = 1;
  ASSERT_EQ(0, OXA_MsgQReceiveEx(queue_, &got, kHangGuardMs));
  EXPECT_EQ(0xABCDEF01u, got.type);
  EXPECT_EQ(9, got.priority);
  EXPECT_EQ(1, got.length);
}

TEST_F(MsgQ, AcceptsUpTo8096BytesAndRefusesBadInputUnchanged) {
  OXA_MQ_MSG big;
  big.type = 1;
  big.priority = 0;
  big.length = OXA_MQ_MAX_MSG_LEN;
  for (int i = 0; i < OXA_MQ_MAX_MSG_LEN; ++i)
    big.data[i] = static_cast<char>(i * 7);
  ASSERT_EQ(0, OXA_MsgQSendEx(queue_, &big));
  for (int bad_length : {OXA_MQ_MAX_MSG_LEN + 1, -1}) {
    OXA_MQ_MSG bad = big;
    bad.length = bad_length;
    EXPECT_EQ(-1, OXA_MsgQSendEx(queue_, &bad));
  }
  EXPECT_EQ(-1, OXA_MsgQSendEx(nullptr, &big));
  EXPECT_EQ(-1, OXA_MsgQSendEx(queue_, nullptr));
  OXA_MQ_MSG out;
  EXPECT_EQ(-1, OXA_MsgQReceiveEx(nullptr, &out, 0));
  EXPECT_EQ(-1, OXA_MsgQReceiveEx(queue_, nullptr, 0));

  out.length = OXA_MQ_MAX_MSG_LEN;
  ASSERT_EQ(0, OXA_MsgQReceiveEx(queue_, &out, kHangGuardMs));
  EXPECT_EQ(OXA_MQ_MAX_MSG_LEN, out.length);
  EXPECT_EQ(0, memcmp(big.data, out.data, OXA_MQ_MAX_MSG_LEN));
  EXPECT_EQ(0u, queue_->count);  // the refused sends left nothing behind
}

TEST_F(MsgQ, TooSmallBufferLosesTheMessage) {
  const OXA_MQ_MSG first = Message(4, "0123456789", 77);
  const OXA_MQ_MSG second = Message(4, "next");
  ASSERT_EQ(0, OXA_MsgQSendEx(queue_, &first));
  ASSERT_EQ(0, OXA_MsgQSendEx(queue_, &second));
  OXA_MQ_MSG out;
  memset(&out, 0, sizeof(out));
  out.length = 9;
  EXPECT_EQ(-1, OXA_MsgQReceiveEx(queue_, &out, kHangGuardMs));
  EXPECT_EQ(77u, out.type);
  EXPECT_EQ(4, out.priority);
  EXPECT_EQ(9, out.length);            // unchanged
  EXPECT_EQ('\0', out.data[0]);        // nothing copied
  EXPECT_EQ("next", Receive(queue_));  // the long one is gone for good
}

// A time-out ends the wait on the tick counter; zero waits for the next send and leaves it queued.
TEST_F(MsgQ, ReceiveTimesOutOrWithZeroWaitsForTheNextSendAndLeavesItQueued) {
  Stopwatch clock;
  int result = 0;
  Receive(queue_, &result, 100);
  EXPECT_EQ(-1, result);
  EXPECT_GE(clock.Elapsed(), milliseconds(99));  // ticks are whole milliseconds
  EXPECT_LT(clock.Elapsed(), milliseconds(kHangGuardMs));
  auto receiver = std::async(std::launch::async, [&] {
    int got = 0;
    Receive(queue_, &got, 0);
    return got;
  });
  ASSERT_TRUE(WaitForReceivers(queue_, 1));
  EXPECT_EQ(std::future_status::timeout, receiver.wait_for(milliseconds(50)));  // still blocked
  const OXA_MQ_MSG msg = Message(0, "kept");
  ASSERT_EQ(0, OXA_MsgQSendEx(queue_, &msg));
  ASSERT_EQ(std::future_status::ready, receiver.wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(-1, receiver.get());
  EXPECT_EQ("kept", Receive(queue_, &result, 0));  // a queued message is taken at once
}

TEST_F(MsgQ, TableHoldsOneHundredQueuesAndReusesTheLowestFreeRecord) {
  std::vector<OXA_MQ_HANDLE> queues(1, queue_);
  for (int i = 1; i < OXA_MQ_MAX_QUEUES; ++i) {
    OXA_MQ_HANDLE handle = nullptr;
    ASSERT_EQ(0, OXA_MsgQCreateEx(&handle)) << i;
    queues.push_back(handle);
  }
  OXA_MQ_HANDLE extra = nullptr;
  EXPECT_EQ(-1, OXA_MsgQCreateEx(&extra));
  EXPECT_EQ(-1, OXA_MsgQCreateEx(nullptr));
  ASSERT_EQ(0, OXA_MsgQDestroyEx(queues[37]));
  EXPECT_EQ(0, OXA_MsgQDestroyEx(queues[37]));  // a second destroy is harmless
  const OXA_MQ_MSG msg = Message(0, "x");
  EXPECT_EQ(-1, OXA_MsgQSendEx(queues[37], &msg));
  ASSERT_EQ(0, OXA_MsgQCreateEx(&extra));
  EXPECT_EQ(queues[37], extra);
  EXPECT_EQ(-1, OXA_MsgQDestroyEx(nullptr));
  for (size_t i = 1; i < queues.size(); ++i)
    EXPECT_EQ(0, OXA_MsgQDestroyEx(queues[i]));
}

TEST(MsgQLifecycle, NeedsTheLibraryAndReleasesQueuesAtTheLastStop) {
  OXA_MQ_HANDLE queue = nullptr;
  EXPECT_EQ(-1, OXA_MsgQCreateEx(&queue));
  ASSERT_EQ(0, OXA_Init());
  ASSERT_EQ(0, OXA_MsgQCreateEx(&queue));
  const OXA_MQ_MSG msg = Message(3, "left behind");
  for (int i = 0; i < 50; ++i)
    ASSERT_EQ(0, OXA_MsgQSendEx(queue, &msg));
  OXA_Fini();  // the leak checker of the sanitizer run sees whether the messages were freed
  EXPECT_EQ(-1, OXA_MsgQSendEx(queue, &msg));
  EXPECT_EQ(-1, OXA_MsgQDestroyEx(queue));
  ASSERT_EQ(0, OXA_Init());
  ASSERT_EQ(0, OXA_MsgQCreateEx(&queue));
  EXPECT_EQ(0u, queue->count);
  EXPECT_EQ(0, OXA_MsgQDestroyEx(queue));
  OXA_Fini();
}

TEST_F(MsgQ, DestroyDoesNotWaitForABlockedReceiverWhichTimesOutSafely) {
  const Stopwatch since_start;
  auto receiver = std::async(std::launch::async, [&] {
    int result = 0;
    Receive(queue_, &result, 300);
    return result;
  });
  ASSERT_TRUE(WaitForReceivers(queue_, 1));
  ASSERT_EQ(std::future_status::timeout, receiver.wait_for(milliseconds(50)));  // now waiting
  Stopwatch clock;
  EXPECT_EQ(0, OXA_MsgQDestroyEx(queue_));
  EXPECT_LT(clock.Elapsed(), milliseconds(200));
  OXA_MQ_HANDLE other = nullptr;
  ASSERT_EQ(0, OXA_MsgQCreateEx(&other));
  EXPECT_NE(queue_, other);  // a record with a receiver inside is not handed out
  const OXA_MQ_MSG msg = Message(0, "for the new queue");
  ASSERT_EQ(0, OXA_MsgQSendEx(other, &msg));
  ASSERT_EQ(std::future_status::ready, receiver.wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(-1, receiver.get());
  EXPECT_GE(since_start.Elapsed(), milliseconds(299));  // not woken by the destruction
  ASSERT_EQ(0, OXA_MsgQDestroyEx(other));
  ASSERT_EQ(0, OXA_MsgQCreateEx(&other));
  EXPECT_EQ(queue_, other);  // free again once the receiver left
  queue_ = other;
}

// Two producers, two consumers: every message arrives exactly once, and the messages of one
// producer (all of one priority) arrive in sending order.
TEST_F(MsgQ, ProducerConsumerSoakLosesAndDuplicatesNothing) {
  constexpr int kPerProducer = 20000;
  std::vector<std::atomic<int>> seen(2 * kPerProducer);
  std::atomic<int> order_errors{0};
  auto produce = [&](int producer) {
    for (int i = 0; i < kPerProducer; ++i) {
      OXA_MQ_MSG msg;
      msg.type = static_cast<unsigned>(producer);
      msg.priority = producer;  // one priority per producer
      msg.length = sizeof(int);
      const int id = producer * kPerProducer + i;
      memcpy(msg.data, &id, sizeof(id));
      if (OXA_MsgQSendEx(queue_, &msg) != 0) return;
    }
  };
  auto consume = [&](int quota) {
    int last[2] = {-1, -1};
    for (int n = 0; n < quota; ++n) {
      OXA_MQ_MSG msg;
      msg.length = sizeof(int);
      if (OXA_MsgQReceiveEx(queue_, &msg, kHangGuardMs) != 0) return;
      int id = 0;
      memcpy(&id, msg.data, sizeof(id));
      const int producer = static_cast<int>(msg.type);
      if (id <= last[producer]) ++order_errors;
      last[producer] = id;
      seen[static_cast<size_t>(id)].fetch_add(1);
    }
  };
  std::thread consumers[] = {std::thread(consume, kPerProducer),
                             std::thread(consume, kPerProducer)};
  std::thread producers[] = {std::thread(produce, 0), std::thread(produce, 1)};
  for (auto& t : producers)
    t.join();
  for (auto& t : consumers)
    t.join();
  int once = 0;
  for (auto& count : seen)
    once += count.load() == 1 ? 1 : 0;
  EXPECT_EQ(2 * kPerProducer, once);
  EXPECT_EQ(0, order_errors.load());
  EXPECT_EQ(0u, queue_->count);
}

// ---- oxa::oxa_msgq --------------------------------------------------------------------

OXA_MSG_BLOCK_T* Block(int* value) { return reinterpret_cast<OXA_MSG_BLOCK_T*>(value); }

TEST(MsgQClass, QueuesPointersInOrderAndRefusesBadInput) {
  oxa::oxa_msgq queue;
  int a = 1, b = 2;
  EXPECT_EQ(-1, queue.putq(nullptr));
  EXPECT_EQ(-1, queue.getq(nullptr, 0));
  ASSERT_EQ(0, queue.putq(Block(&a)));
  ASSERT_EQ(0, queue.putq(Block(&b)));
  OXA_MSG_BLOCK_T* got = nullptr;
  ASSERT_EQ(0, queue.getq(&got, -1));
  EXPECT_EQ(Block(&a), got);
  ASSERT_EQ(0, queue.getq(&got, 0));
  EXPECT_EQ(Block(&b), got);
  queue.destroy();
  EXPECT_EQ(-1, queue.putq(Block(&a)));
  EXPECT_EQ(-1, queue.getq(&got, 0));
  ASSERT_EQ(0, queue.init());
  ASSERT_EQ(0, queue.putq(Block(&a)));
  ASSERT_EQ(0, queue.getq(&got, 0));
  EXPECT_EQ(Block(&a), got);
}

TEST(MsgQClass, PostsLeftByResetAreSpentWithinTheTimeOut) {
  oxa::oxa_msgq queue;
  int a = 1;
  ASSERT_EQ(0, queue.putq(Block(&a)));
  ASSERT_EQ(0, queue.putq(Block(&a)));
  queue.reset();
  OXA_MSG_BLOCK_T* got = nullptr;
  Stopwatch clock;
  EXPECT_EQ(-1, queue.getq(&got, 100));  // takes both stale posts, then times out
  EXPECT_GE(clock.Elapsed(), milliseconds(95));
  EXPECT_LT(clock.Elapsed(), milliseconds(kHangGuardMs));

  // Without a limit, a stale post is skipped and the next real block is delivered.
  ASSERT_EQ(0, queue.putq(Block(&a)));
  queue.reset();
  auto getter = std::async(std::launch::async, [&] {
    OXA_MSG_BLOCK_T* block = nullptr;
    return queue.getq(&block, -1) == 0 ? block : nullptr;
  });
  int b = 2;
  ASSERT_EQ(0, queue.putq(Block(&b)));
  ASSERT_EQ(std::future_status::ready, getter.wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(Block(&b), getter.get());
}

}  // namespace
