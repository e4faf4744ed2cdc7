#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "oxa_lockfree.h"
#include "oxa_trace.h"

#include "support/test_support.h"

namespace {

// A counted element that tells how often it was destroyed.
class Item : public oxa::cobject {
 public:
  Item(int id, std::atomic<int>* destroyed) : id_(id), destroyed_(destroyed) {}
  ~Item() override { destroyed_->fetch_add(1); }
  int id() const { return id_; }

 private:
  const int id_;
  std::atomic<int>* const destroyed_;
};

int IdOf(const oxa::cshared_ptr<oxa::cobject>& element) {
  return element ? dynamic_cast<Item*>(element.get())->id() : -1;
}

TEST(LockFreeQueue, IsFirstInFirstOutAndCountsReferences) {
  std::atomic<int> destroyed{0};
  oxa::oxa_lockfreeQ queue;
  EXPECT_EQ(1, queue.empty());
  EXPECT_EQ(0, queue.size());
  EXPECT_FALSE(queue.pop_front());
  {
    oxa::cshared_ptr<oxa::cobject> a(new Item(1, &destroyed));
    const long before = a->addRef() - 1;
    a->release();
    queue.push_back(a);
    EXPECT_EQ(before + 2, a->addRef());  // the queue holds one reference
    a->release();
    queue.push_back(oxa::cshared_ptr<oxa::cobject>(new Item(2, &destroyed)));
    queue.push_back(oxa::cshared_ptr<oxa::cobject>(new Item(3, &destroyed)));
    queue.push_back(oxa::cshared_ptr<oxa::cobject>());  // ignored
    EXPECT_EQ(0, queue.empty());
    EXPECT_EQ(3, queue.size());
    EXPECT_EQ(1, IdOf(queue.pop_front()));
    EXPECT_EQ(before + 1, a->addRef());  // back where it was once the popped pointer is gone
    a->release();
  }
  EXPECT_EQ(1, destroyed.load());
  EXPECT_EQ(2, IdOf(queue.pop_front()));
  EXPECT_EQ(3, IdOf(queue.pop_front()));
  EXPECT_FALSE(queue.pop_front());
  EXPECT_EQ(0, queue.size());
  EXPECT_EQ(3, destroyed.load());
}

TEST(LockFreeQueue, DestructionReleasesEachQueuedElementOnce) {
  std::atomic<int> destroyed{0};
  oxa::cshared_ptr<oxa::cobject> kept(new Item(0, &destroyed));
  {
    oxa::oxa_lockfreeQ queue;
    queue.push_back(kept);
    for (int i = 1; i <= 100; ++i)
      queue.push_back(new Item(i, &destroyed));
    for (int i = 1; i <= 40; ++i)
      queue.pop_front();  // leaves spare nodes behind too
  }
  EXPECT_EQ(100, destroyed.load());  // everything but the one still held here
  EXPECT_EQ(2, kept->addRef());      // only `kept` and this call hold it now
  kept->release();
}

TEST(LockFreeQueue, TheProducersTraceContextFollowsTheObject) {
  std::atomic<int> destroyed{0};
  oxa::oxa_lockfreeQ queue;
  const OXA_TRACEINFO sent = oxa_test::TraceInfo("request 42", "", "third", 0, 7);
  std::thread producer([&] {
    oxa::oxa_tlsTraceInfoOper::instance().setTraceInfo(sent);
    queue.push_back(new Item(1, &destroyed));
    oxa::oxa_tlsTraceInfoOper::instance().eraseTraceInfo();
  });
  producer.join();
  auto consumer = std::async(std::launch::async, [&] {
    OXA_TRACEINFO before, after;
    const int had = oxa::oxa_tlsTraceInfoOper::instance().getTraceInfo(&before);
    const int id = IdOf(queue.pop_front());
    oxa::oxa_tlsTraceInfoOper::instance().getTraceInfo(&after);
    oxa::oxa_tlsTraceInfoOper::instance().eraseTraceInfo();
    EXPECT_EQ(-1, had);
    EXPECT_EQ(1, id);
    return after;
  });
  const OXA_TRACEINFO got = consumer.get();
  EXPECT_STREQ("request 42", got.text1);
  EXPECT_STREQ("", got.text2);
  EXPECT_STREQ("third", got.text3);
  EXPECT_EQ(7, got.byte2);
  EXPECT_EQ(1, destroyed.load());
}

// The reclamation proof: producers and consumers race on every link while nodes are recycled
// under them. Under the address and thread sanitizers a read of a freed node or an unordered
// access shows up here. Each element arrives exactly once, in its producer's order.
TEST(LockFreeQueue, ManyProducersManyConsumersStress) {
  constexpr int kProducers = 4;
  constexpr int kConsumers = 4;
  constexpr int kPerProducer = 25000;
  constexpr int kTotal = kProducers * kPerProducer;
  std::atomic<int> destroyed{0};
  std::vector<std::atomic<int>> seen(kTotal);
  std::atomic<int> taken{0};
  std::atomic<int> order_errors{0};
  {
    oxa::oxa_lockfreeQ queue;
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
      threads.emplace_back([&, p] {
        for (int i = 0; i < kPerProducer; ++i) {
          queue.push_back(new Item(p * kPerProducer + i, &destroyed));
        }
      });
    }
    for (int c = 0; c < kConsumers; ++c) {
      threads.emplace_back([&] {
        std::vector<int> last(kProducers, -1);
        while (taken.load() < kTotal) {
          const int id = IdOf(queue.pop_front());
          if (id < 0) {
            std::this_thread::yield();
            continue;
          }
          taken.fetch_add(1);
          seen[static_cast<size_t>(id)].fetch_add(1);
          const int producer = id / kPerProducer;
          if (id <= last[static_cast<size_t>(producer)]) order_errors.fetch_add(1);
          last[static_cast<size_t>(producer)] = id;
        }
        oxa::oxa_tlsTraceInfoOper::instance().eraseTraceInfo();
      });
    }
    for (auto& t : threads)
      t.join();
    EXPECT_EQ(0, queue.size());
    EXPECT_EQ(1, queue.empty());
  }
  int once = 0;
  for (auto& count : seen)
    once += count.load() == 1 ? 1 : 0;
  EXPECT_EQ(kTotal, once);
  EXPECT_EQ(0, order_errors.load());
  EXPECT_EQ(kTotal, destroyed.load());
}

}  // namespace
