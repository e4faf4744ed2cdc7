// Running a thread of the application at the real-time priority that completion-queue
// workers ask for.
#ifndef OXA_EXAMPLES_ECHO_WORKER_PRIORITY_H_
#define OXA_EXAMPLES_ECHO_WORKER_PRIORITY_H_

#include <pthread.h>
#include <sched.h>

namespace oxa_echo {

// Runs the calling thread at SCHED_FIFO priority 1, the workers' priority, for a scope. Below
// it, busy workers keep a thread off its CPU for most of a run (a real-time thread leaves
// ordinary ones only what the kernel's throttle reserves): connections would be accepted or
// started late. At it, the thread takes turns with the workers, which yield every few
// batches. Without the privilege nothing changes, for the workers and for this thread.
class WorkerPriority {
 public:
  WorkerPriority() {
    pthread_getschedparam(pthread_self(), &policy_, &param_);
    sched_param fifo{};
    fifo.sched_priority = 1;
    raised_ = pthread_setschedparam(pthread_self(), SCHED_FIFO, &fifo) == 0;
  }
  ~WorkerPriority() {
    if (raised_) pthread_setschedparam(pthread_self(), policy_, &param_);
  }
  WorkerPriority(const WorkerPriority&) = delete;
  WorkerPriority& operator=(const WorkerPriority&) = delete;

 private:
  bool raised_ = false;
  int policy_ = SCHED_OTHER;
  sched_param param_{};
};

}  // namespace oxa_echo

#endif  // OXA_EXAMPLES_ECHO_WORKER_PRIORITY_H_
