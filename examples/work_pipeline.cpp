// A small pipeline through the work-dispatch families, with the trace context printed at each
// stage: a producer thread sends orders to a message queue (urgent ones with a higher
// priority), a dispatcher receives them, sets the order as its trace context and hands each to
// a flexible pool; the pool's workers see that context, and push their result objects onto a
// lock-free queue, which installs the context again on the thread that pops them.
#include <semaphore.h>

#include <cstdio>
#include <cstring>
#include <thread>

#include "oxa_frame.h"
#include "oxa_lockfree.h"
#include "oxa_msgq.h"
#include "oxa_threadpoolflex.h"
#include "oxa_trace.h"

namespace {

constexpr int kOrders = 6;
constexpr unsigned int kWaitMs = 5000;

oxa::oxa_tlsTraceInfoOper& Trace() { return oxa::oxa_tlsTraceInfoOper::instance(); }

void SetContext(const char* order, const char* stage) {
  OXA_TRACEINFO info{};
  std::snprintf(info.text1, sizeof(info.text1), "%s", order);
  std::snprintf(info.text2, sizeof(info.text2), "%s", stage);
  Trace().setTraceInfo(info);
}

void Print(const char* stage, const char* what) {
  OXA_TRACEINFO info;
  if (Trace().getTraceInfo(&info) == 0) {
    std::printf("  %-11s %-28s [trace %s / %s]\n", stage, what, info.text1, info.text2);
  } else {
    std::printf("  %-11s %-28s [no trace context]\n", stage, what);
  }
}

// What a worker hands back.
class Result : public oxa::cobject {
 public:
  explicit Result(int order) : order_(order) {}
  int order() const { return order_; }

 private:
  const int order_;
};

oxa::oxa_lockfreeQ* g_results = nullptr;  // the pool's handler has only its data argument
sem_t g_result_ready;

void HandleOrder(void* data) {
  const int order = static_cast<int>(reinterpret_cast<long>(data));
  char what[64];
  std::snprintf(what, sizeof(what), "handles order %d", order);
  Print("worker", what);
  OXA_TRACEINFO info;
  Trace().getTraceInfo(&info);  // the dispatcher's, installed for this item
  SetContext(info.text1, "worker");
  g_results->push_back(new Result(order));  // stamps this thread's context into the result
  sem_post(&g_result_ready);
}

void Produce(OXA_MQ_HANDLE queue) {
  SetContext("batch-7", "producer");
  for (int order = 1; order <= kOrders; ++order) {
    OXA_MQ_MSG msg;
    msg.type = 1;
    msg.priority = order % 3 == 0 ? 5 : 1;  // every third order is urgent
    msg.length = std::snprintf(msg.data, sizeof(msg.data), "order-%d", order);
    char what[64];
    std::snprintf(what, sizeof(what), "sends order-%d, priority %d", order, msg.priority);
    Print("producer", what);
    OXA_MsgQSendEx(queue, &msg);
  }
  Trace().eraseTraceInfo();
}

}  // namespace

int main() {
  if (OXA_Init() != 0) return 1;
  OXA_MQ_HANDLE queue = nullptr;
  if (OXA_MsgQCreateEx(&queue) != 0) return 1;
  oxa::oxa_lockfreeQ results;
  g_results = &results;
  sem_init(&g_result_ready, 0, 0);
  OXA_THREADPOOLFLEX pool = OXA_ThreadPoolFlex_Create(2, 200, HandleOrder, 0);

  std::printf("A producer thread sends %d orders to a message queue:\n", kOrders);
  std::thread producer(Produce, queue);
  producer.join();

  std::printf("The dispatcher receives them by priority and hands them to a pool of 2:\n");
  for (int i = 0; i < kOrders; ++i) {
    OXA_MQ_MSG msg;
    msg.length = sizeof(msg.data) - 1;
    if (OXA_MsgQReceiveEx(queue, &msg, kWaitMs) != 0) break;
    msg.data[msg.length] = '\0';
    SetContext(msg.data, "dispatcher");
    Print("dispatcher", "receives and dispatches");
    int order = 0;
    std::sscanf(msg.data, "order-%d", &order);
    OXA_ThreadPoolFlex_Work(pool, reinterpret_cast<void*>(static_cast<long>(order)));
  }
  Trace().eraseTraceInfo();

  std::fflush(stdout);
  std::printf("The workers' results come back through the lock-free queue:\n");
  for (int i = 0; i < kOrders; ++i) {
    sem_wait(&g_result_ready);
    const oxa::cshared_ptr<oxa::cobject> result = results.pop_front();
    char what[64];
    std::snprintf(what, sizeof(what), "pops the result of order %d",
                  static_cast<Result*>(result.get())->order());
    Print("main", what);
  }
  Trace().eraseTraceInfo();

  OXA_ThreadPoolFlex_DestroyEx(pool, -1);
  sem_destroy(&g_result_ready);
  OXA_MsgQDestroyEx(queue);
  OXA_Fini();
  return 0;
}
