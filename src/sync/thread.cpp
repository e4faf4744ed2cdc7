// Joinable and detached threads over POSIX threads. A thread whose creator carries a trace
// record starts in a trampoline that installs a copy of that record before the caller's routine
// runs and erases it afterwards; a creator without one starts the routine directly.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stddef.h>
#include <stdio.h>

#include "oxa_thread.h"
#include "oxa_trace.h"

#include "frame/errno_util.h"
#include "frame/pthread_result.h"
#include "sync/thread_start_block.h"

using oxa::internal::FreeThreadStartBlock;
using oxa::internal::NewThreadStartBlock;
using oxa::internal::ThreadStartBlock;
using oxa::internal::ZeroOrError;

static_assert(sizeof(pthread_t) <= sizeof(OXA_HANDLE), "a thread handle carries pthread_t");

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_HANDLE) == 4, "thread handle is 32 bits");
static_assert(sizeof(OXA_Thread) == 4, "OXA_Thread is its handle only");
static_assert(offsetof(ThreadStartBlock, routine) == 200, "start block layout");
static_assert(offsetof(ThreadStartBlock, arg) == 204, "start block layout");
static_assert(offsetof(ThreadStartBlock, has_trace) == 208, "start block layout");
static_assert(sizeof(ThreadStartBlock) == 212, "start block layout");
#endif

namespace {

constexpr char kNullBlockMessage[] = "pfnThreadStartAddress, pParam is null!\r\n";
static_assert(sizeof(kNullBlockMessage) - 1 == 40, "the message is written as 40 bytes");

constexpr int kNotSupported = -2;

pthread_t FromHandle(OXA_HANDLE thread) { return static_cast<pthread_t>(thread); }
OXA_HANDLE ToHandle(pthread_t thread) { return static_cast<OXA_HANDLE>(thread); }

oxa::oxa_tlsTraceInfoOper& Trace() { return oxa::oxa_tlsTraceInfoOper::instance(); }

// A thread-attribute object, destroyed with its scope. Destroying the attributes once the
// thread exists is harmless: pthread_create copied what it needed.
class ThreadAttr {
 public:
  ThreadAttr() : init_result_(pthread_attr_init(&attr_)) {}
  ~ThreadAttr() {
    if (init_result_ != 0) return;
    oxa::internal::ErrnoSaver keep;
    pthread_attr_destroy(&attr_);
  }
  ThreadAttr(const ThreadAttr&) = delete;
  ThreadAttr& operator=(const ThreadAttr&) = delete;

  // 0 when the object was initialised; otherwise -1 with errno set.
  int InitResult() const { return ZeroOrError(init_result_); }
  pthread_attr_t* get() { return &attr_; }

 private:
  pthread_attr_t attr_;
  int init_result_;
};

// 0 keeps the system's default stack; a size the system refuses (below its minimum) fails.
int SetStackSize(pthread_attr_t* attr, unsigned int stack_size) {
  if (stack_size == 0) return 0;
  return ZeroOrError(pthread_attr_setstacksize(attr, stack_size));
}

// Policy, stack and priority of a joinable thread, in this order. The inherit-scheduler
// attribute keeps the system default (inherit), so policy and priority are checked for
// consistency here but take effect only where the system applies them.
int PrepareJoinable(pthread_attr_t* attr, unsigned int stack_size, int priority, int policy) {
  if (ZeroOrError(pthread_attr_setschedpolicy(attr, policy)) != 0) return OXA_ERROR;
  if (SetStackSize(attr, stack_size) != 0) return OXA_ERROR;
  struct sched_param param {};
  param.sched_priority = priority;
  return ZeroOrError(pthread_attr_setschedparam(attr, &param));
}

// Starts routine(arg). A creator with a trace record hands a copy of it over in a start block,
// so the new thread never shares the creator's record. 0, or -1 with errno set.
int StartThread(pthread_t* thread, const pthread_attr_t* attr, OXA_THREAD_ROUTINE routine,
                void* arg) {
  OXA_TRACEINFO trace;
  if (Trace().getTraceInfo(&trace) != 0) {
    return ZeroOrError(pthread_create(thread, attr, routine, arg));
  }
  ThreadStartBlock* block = NewThreadStartBlock();
  if (block == nullptr) return OXA_ERROR;
  block->trace = trace;
  block->routine = routine;
  block->arg = arg;
  block->has_trace = 1;
  const int rc = pthread_create(thread, attr, pfnThreadStartAddress, block);
  if (rc != 0) FreeThreadStartBlock(block);  // never seen by a thread
  return ZeroOrError(rc);
}

// Ends a trampoline's work: erases the installed record and frees the block. A scope guard, so
// that it also runs when the routine leaves through OXA_Thread_Exit (which unwinds the stack).
class StartBlockRelease {
 public:
  explicit StartBlockRelease(ThreadStartBlock* block) : block_(block) {}
  ~StartBlockRelease() {
    if (block_->has_trace != 0) Trace().eraseTraceInfo();
    FreeThreadStartBlock(block_);
  }
  StartBlockRelease(const StartBlockRelease&) = delete;
  StartBlockRelease& operator=(const StartBlockRelease&) = delete;

 private:
  ThreadStartBlock* block_;
};

}  // namespace

// ---- OXA_Thread --------------------------------------------------------------------

OXA_Thread::OXA_Thread() : handle_(OXA_INVALID_HANDLE) {}

OXA_Thread::~OXA_Thread() = default;  // neither joins nor detaches

int OXA_Thread::Create(OXA_THREAD_ROUTINE routine, void* arg, unsigned int stack_size, int reserved,
                       int priority, int policy) {
  handle_ = OXA_Thread_Create(routine, arg, stack_size, reserved, priority, policy);
  return handle_ == OXA_INVALID_HANDLE ? OXA_ERROR : 0;
}

int OXA_Thread::Wait() {
  const int rc = OXA_Thread_Wait(handle_);
  // A joined thread's identifier may be reused: forget it, so that a second Wait() or a
  // later SetPriority() fails with -1 instead of reaching some other thread.
  if (rc == 0) handle_ = OXA_INVALID_HANDLE;
  return rc;
}

int OXA_Thread::Suspend() { return OXA_Thread_Suspend(); }
int OXA_Thread::Resume() { return OXA_Thread_Resume(); }
int OXA_Thread::SetPriority(int priority) { return OXA_Thread_SetPriority(handle_, priority); }
int OXA_Thread::SetSchedPolicy(int policy) { return OXA_Thread_SetSchedPolicy(handle_, policy); }

// ---- C entry points ----------------------------------------------------------------

extern "C" {

OXA_API void* pfnThreadStartAddress(void* param) {
  if (param == nullptr) {
    fwrite(kNullBlockMessage, 1, sizeof(kNullBlockMessage) - 1, stderr);
    return nullptr;
  }
  auto* block = static_cast<ThreadStartBlock*>(param);
  StartBlockRelease release(block);
  if (block->has_trace != 0) Trace().setTraceInfo(block->trace);
  if (block->routine != nullptr) block->routine(block->arg);  // its result is not passed on
  return nullptr;
}

OXA_API void* pfnDetachedThreadStartAddress(void* param) { return pfnThreadStartAddress(param); }

OXA_API OXA_HANDLE OXA_Thread_Create(OXA_THREAD_ROUTINE routine, void* arg, unsigned int stack_size,
                                     int /*reserved*/, int priority, int policy) {
  if (routine == nullptr) return OXA_INVALID_HANDLE;
  ThreadAttr attr;
  if (attr.InitResult() != 0) return OXA_INVALID_HANDLE;
  if (PrepareJoinable(attr.get(), stack_size, priority, policy) != 0) return OXA_INVALID_HANDLE;
  pthread_t thread;
  if (StartThread(&thread, attr.get(), routine, arg) != 0) return OXA_INVALID_HANDLE;
  return ToHandle(thread);
}

OXA_API int OXA_ThreadDetached_Create(OXA_THREAD_ROUTINE routine, void* arg,
                                      unsigned int stack_size) {
  if (routine == nullptr) return OXA_FALSE;
  ThreadAttr attr;
  if (attr.InitResult() != 0) return OXA_FALSE;
  if (ZeroOrError(pthread_attr_setdetachstate(attr.get(), PTHREAD_CREATE_DETACHED)) != 0) {
    return OXA_FALSE;
  }
  if (SetStackSize(attr.get(), stack_size) != 0) return OXA_FALSE;
  pthread_t thread;
  if (StartThread(&thread, attr.get(), routine, arg) != 0) return OXA_FALSE;
  return OXA_TRUE;
}

OXA_API void OXA_Thread_Exit(void) { pthread_exit(nullptr); }

OXA_API int OXA_Thread_Wait(OXA_HANDLE thread) {
  if (thread == OXA_INVALID_HANDLE) return OXA_ERROR;
  return ZeroOrError(pthread_join(FromHandle(thread), nullptr));
}

OXA_API OXA_HANDLE OXA_Thread_GetSelfId(void) { return ToHandle(pthread_self()); }

OXA_API int OXA_Thread_Suspend(void) { return kNotSupported; }

OXA_API int OXA_Thread_Resume(void) { return kNotSupported; }

OXA_API int OXA_Thread_SetPriority(OXA_HANDLE thread, int priority) {
  if (thread == OXA_INVALID_HANDLE) return OXA_ERROR;
  int policy = 0;
  struct sched_param param {};
  if (ZeroOrError(pthread_getschedparam(FromHandle(thread), &policy, &param)) != 0) {
    return OXA_ERROR;
  }
  param.sched_priority = priority;
  return ZeroOrError(pthread_setschedparam(FromHandle(thread), policy, &param));
}

OXA_API int OXA_Thread_SetSchedPolicy(OXA_HANDLE thread, int policy) {
  if (thread == OXA_INVALID_HANDLE) return OXA_ERROR;
  // Only checks the policy, on scratch attributes: the running thread is left as it is.
  ThreadAttr scratch;
  if (scratch.InitResult() != 0) return OXA_ERROR;
  return ZeroOrError(pthread_attr_setschedpolicy(scratch.get(), policy));
}

}  // extern "C"
