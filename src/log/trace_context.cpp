// The per-thread trace context. Each thread's context lives in a thread-local slot as a plain
// pointer; the singleton's map owns every installed context through a counted pointer, so a
// context outlives nothing but its map entry. The key's destructor drops the map entry of a
// thread that ends without erasing its context, whoever started the thread.
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <map>
#include <new>
#include <string>

#include "oxa_sync.h"
#include "oxa_thread.h"
#include "oxa_trace.h"

#include "frame/load_order.h"
#include "frame/scoped_lock.h"
#include "log/shared_object.h"

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_TRACEINFO) == 197, "trace record is ABI");
static_assert(sizeof(oxa::oxa_tlsTraceInfoOper) == 8, "vtable pointer and impl pointer");
#endif
static_assert(sizeof(OXA_TRACEINFO) == 197, "three 65-byte texts and two bytes, no gaps");

namespace {

// The trace context's thread-local key; OXA_INVALID_TLS_KEY when it could not be created.
// Atomic: threads the library does not own may still read it while unload destroys the key.
std::atomic<OXA_TLS_KEY> g_oxa_store_tls_handle{OXA_INVALID_TLS_KEY};

OXA_TLS_KEY TraceKey() { return g_oxa_store_tls_handle.load(std::memory_order_relaxed); }

constexpr size_t kTextField = sizeof(OXA_TRACEINFO::text1);  // 65: 64 characters and a zero
constexpr size_t kTextChars = kTextField - 1;

// Assigns in place, so a thread that sets its context again and again reuses the strings'
// storage instead of allocating.
void AssignText(const char (&field)[kTextField], std::string* text) {
  text->assign(field, strnlen(field, kTextField));
}

// Copies at most 64 characters; the 65th byte of the field is left as it was, so a text of
// 64 characters or more is not terminated inside the field.
void CopyText(const std::string& text, char (&field)[kTextField]) {
  strncpy(field, text.c_str(), kTextChars);  // NOLINT(bugprone-not-null-terminated-result)
}

}  // namespace

namespace oxa {

class CTraceInfo_context : public shared_object {
 public:
  void Assign(const OXA_TRACEINFO& info) {
    AssignText(info.text1, &text1_);
    AssignText(info.text2, &text2_);
    AssignText(info.text3, &text3_);
    byte1_ = info.byte1;
    byte2_ = info.byte2;
  }

  void CopyTo(OXA_TRACEINFO* info) const {
    CopyText(text1_, info->text1);
    CopyText(text2_, info->text2);
    CopyText(text3_, info->text3);
    info->byte1 = byte1_;
    info->byte2 = byte2_;
  }

 private:
  std::string text1_;
  std::string text2_;
  std::string text3_;
  unsigned char byte1_ = 0;
  unsigned char byte2_ = 0;
};

class oxa_tlsTraceInfoOperImpl {
 public:
  oxa_tlsTraceInfoOperImpl() = default;
  virtual ~oxa_tlsTraceInfoOperImpl() = default;
  oxa_tlsTraceInfoOperImpl(const oxa_tlsTraceInfoOperImpl&) = delete;
  oxa_tlsTraceInfoOperImpl& operator=(const oxa_tlsTraceInfoOperImpl&) = delete;

  int Set(const OXA_TRACEINFO& info);
  int Get(OXA_TRACEINFO* info);
  int Erase();
  // Drops the map's reference to a context; the context goes when no other reference holds it.
  void Forget(CTraceInfo_context* context);

 private:
  using ContextPtr = smartptr<CTraceInfo_context, shared_object, oxa_mutex>;

  int SetOrThrow(const OXA_TRACEINFO& info);

  static CTraceInfo_context* Current() {
    return static_cast<CTraceInfo_context*>(OXA_ThreadTls_GetValue(TraceKey()));
  }

  std::map<void*, ContextPtr> contexts_;  // Guarded by mutex_.
  OXA_Mutex mutex_;
};

int oxa_tlsTraceInfoOperImpl::Set(const OXA_TRACEINFO& info) {
  // Runs inside extern "C" entry points (the thread start trampoline, pool workers): an
  // allocation failure becomes -1 here and never unwinds further.
  try {
    return SetOrThrow(info);
  } catch (const std::bad_alloc&) {
    return OXA_ERROR;
  }
}

int oxa_tlsTraceInfoOperImpl::SetOrThrow(const OXA_TRACEINFO& info) {
  // The common case (every pop of a queue, every pool item) takes neither a reference nor the
  // lock: only this thread, by erasing or by ending, can drop the map's entry of its context.
  if (CTraceInfo_context* current = Current()) {
    current->Assign(info);
    return 0;
  }
  ContextPtr context(new (std::nothrow) CTraceInfo_context);
  if (!context) return OXA_ERROR;
  context->Assign(info);
  // A new context is owned by the map before the thread's slot points at it, so the slot
  // never holds a context that a failure could free.
  {
    internal::ScopedLock<OXA_Mutex> hold(mutex_);
    contexts_.emplace(context.get(), context);
  }
  if (OXA_ThreadTls_SetValue(TraceKey(), context.get()) != 0) {
    fprintf(stderr, "OXA_ThreadTls_SetValue failed! g_oxa_store_tls_handle{%llu}\r\n",
            static_cast<unsigned long long>(TraceKey()));
    Forget(context.get());  // released with `context`
    return OXA_ERROR;
  }
  return 0;
}

void oxa_tlsTraceInfoOperImpl::Forget(CTraceInfo_context* context) {
  ContextPtr dropped;  // released after the lock, in case it is the last reference
  internal::ScopedLock<OXA_Mutex> hold(mutex_);
  auto entry = contexts_.find(context);
  if (entry == contexts_.end()) return;
  dropped = entry->second;
  contexts_.erase(entry);
}

int oxa_tlsTraceInfoOperImpl::Get(OXA_TRACEINFO* info) {
  if (info == nullptr) {
    fputs("traceInfo is null ptr\r\n", stderr);
    return OXA_ERROR;
  }
  const CTraceInfo_context* current = Current();
  if (current == nullptr) {
    memset(info, 0, sizeof *info);
    return OXA_ERROR;
  }
  current->CopyTo(info);
  return 0;
}

int oxa_tlsTraceInfoOperImpl::Erase() {
  CTraceInfo_context* current = Current();
  if (current != nullptr) Forget(current);
  OXA_ThreadTls_SetValue(TraceKey(), nullptr);
  return 0;
}

// ---- The singleton -----------------------------------------------------------

namespace {

// The singleton's implementation, for the key's destructor. Set once at load.
oxa_tlsTraceInfoOperImpl* g_trace_impl = nullptr;

}  // namespace

oxa_tlsTraceInfoOper oxa_tlsTraceInfoOper::m_tlsTraceInfoOper OXA_LOAD_AT(OXA_LOAD_TRACE_SINGLETON);

oxa_tlsTraceInfoOper::oxa_tlsTraceInfoOper() : impl_(new (std::nothrow) oxa_tlsTraceInfoOperImpl) {
  g_trace_impl = impl_;
}

// The implementation is deliberately kept: threads that the library does not own (detached
// ones, or any thread still running while the process exits) may read or erase their
// context after static destruction has begun. The memory stays reachable from the
// singleton and goes with the process.
oxa_tlsTraceInfoOper::~oxa_tlsTraceInfoOper() = default;

oxa_tlsTraceInfoOper& oxa_tlsTraceInfoOper::instance() { return m_tlsTraceInfoOper; }

int oxa_tlsTraceInfoOper::setTraceInfo(const OXA_TRACEINFO& info) {
  return impl_ == nullptr ? OXA_ERROR : impl_->Set(info);
}

int oxa_tlsTraceInfoOper::getTraceInfo(OXA_TRACEINFO* info) {
  return impl_ == nullptr ? OXA_ERROR : impl_->Get(info);
}

int oxa_tlsTraceInfoOper::eraseTraceInfo() { return impl_ == nullptr ? OXA_ERROR : impl_->Erase(); }

// ---- The key and the load and unload hooks -------------------------------------

namespace {

// Runs when a thread that still has a context ends (the system has already cleared the
// thread's slot): the map's entry goes, and with it the context.
void ReclaimAtThreadEnd(void* context) {
  if (g_trace_impl != nullptr) g_trace_impl->Forget(static_cast<CTraceInfo_context*>(context));
}

// A thread-local key like OXA_ThreadTls_Create's, with ReclaimAtThreadEnd as its destructor.
OXA_TLS_KEY CreateTraceKey() {
  pthread_key_t key;
  if (pthread_key_create(&key, ReclaimAtThreadEnd) != 0) return OXA_INVALID_TLS_KEY;
  return static_cast<OXA_TLS_KEY>(key);
}

}  // namespace

OXA_API int oxa_tls_alloc() {
  const OXA_TLS_KEY key = CreateTraceKey();
  g_oxa_store_tls_handle.store(key, std::memory_order_relaxed);
  if (key == OXA_INVALID_TLS_KEY) {
    fputs("tls_alloc, but OXA_ThreadTls_Create failed!\r\n", stderr);
    return OXA_ERROR;
  }
  fprintf(stderr, "oxa tls index{%llu}\r\n", static_cast<unsigned long long>(key));
  return 0;
}

OXA_API int oxa_tls_free() {
  const OXA_TLS_KEY key = g_oxa_store_tls_handle.exchange(OXA_INVALID_TLS_KEY);
  if (key == OXA_INVALID_TLS_KEY) return OXA_ERROR;
  return OXA_ThreadTls_Destroy(key);
}

OXA_API void oxa_at_initprocess() { oxa_tls_alloc(); }

OXA_API void oxa_at_finiproccess() { oxa_tls_free(); }

namespace {

// Last in the load order: the key is created after every static object and destroyed
// before any of them.
struct TraceKeyHooks {
  TraceKeyHooks() { oxa_at_initprocess(); }
  ~TraceKeyHooks() { oxa_at_finiproccess(); }
  TraceKeyHooks(const TraceKeyHooks&) = delete;
  TraceKeyHooks& operator=(const TraceKeyHooks&) = delete;
};
TraceKeyHooks g_trace_key_hooks OXA_LOAD_AT(OXA_LOAD_TRACE_KEY);

}  // namespace

}  // namespace oxa
