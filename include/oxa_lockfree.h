/** \file
 * liboxa: reference-counted objects and the lock-free queue that hands them between threads.
 *
 * oxa::oxa_refobj is the counting base (inherit it virtually); oxa::cshared_ptr holds one
 * counted reference; oxa::cobject is the element type of oxa::oxa_lockfreeQ, an unbounded
 * first-in first-out queue for any number of producers and consumers. Producers never block;
 * consumers hold a mutex only for a short hand-over. The queue carries each element's trace
 * context (oxa_trace.h): a push stamps the producer's context into the element, a pop
 * installs it as the consumer's context.
 *
 * C++ only.
 */
#ifndef OXA_LOCKFREE_H_
#define OXA_LOCKFREE_H_

#include "oxa_base.h"
#include "oxa_trace.h"

#ifdef __cplusplus
#include <utility>

#include "oxa_atomic.h"

namespace oxa {

/**
 * An intrusive reference count, inherited virtually. The count starts at 0; the release that
 * brings it back to 0 calls destroy(), which deletes the object. Objects that count must
 * therefore live on the heap (new).
 */
class OXA_API oxa_refobj {
 public:
  oxa_refobj();
  virtual ~oxa_refobj();
  oxa_refobj(const oxa_refobj&) = delete;
  oxa_refobj& operator=(const oxa_refobj&) = delete;

  /** Deletes the object; called by the release that brings the count to 0. */
  virtual void destroy();
  /** Adds one reference; the new count. */
  long addRef();
  /** Drops one reference, destroying the object at 0; the new count. */
  long release();

 private:
  oxa_atomic ref_count_;
};

/**
 * Holds one reference to a T (a class with oxa_refobj as a virtual base), or nothing.
 * Copying adds a reference, destruction drops it; moving transfers it.
 */
template <class T>
class cshared_ptr {
 public:
  cshared_ptr() : object_(nullptr) {}
  cshared_ptr(T* object) : object_(object) {  // NOLINT(google-explicit-constructor)
    if (object_ != nullptr) object_->addRef();
  }
  cshared_ptr(const cshared_ptr& other) : cshared_ptr(other.object_) {}
  cshared_ptr(cshared_ptr&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }
  template <class U>
  cshared_ptr(const cshared_ptr<U>& other)  // NOLINT(google-explicit-constructor)
      : cshared_ptr(other.get()) {}
  ~cshared_ptr() { reset(); }

  cshared_ptr& operator=(cshared_ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  /** Drops the held reference, if any. */
  void reset() {
    T* object = object_;
    object_ = nullptr;
    if (object != nullptr) object->release();
  }
  /** Takes over a reference the caller already owns (no count change). */
  static cshared_ptr adopt(T* object) {
    cshared_ptr held;
    held.object_ = object;
    return held;
  }
  /** Gives up the held reference without dropping it; the caller now owns it. */
  T* detach() {
    T* object = object_;
    object_ = nullptr;
    return object;
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  T* object_;
};

/** The element type of oxa_lockfreeQ: a counted object that carries a trace context. */
class OXA_API cobject : public virtual oxa_refobj {
 public:
  /** An empty (zeroed) trace context. */
  cobject();
  ~cobject() override;

  /** Stamped by oxa_lockfreeQ::push_back, installed by pop_front. */
  OXA_TRACEINFO m_traceInfo;
};

class oxa_lockfreeQImpl;

/**
 * An unbounded first-in first-out queue of cobject references for any number of producer
 * and consumer threads. The queue object is itself counted (its count starts at 0).
 */
class OXA_API oxa_lockfreeQ : public virtual oxa_refobj {
 public:
  oxa_lockfreeQ();
  /** Drops the reference of every element still queued. No other thread may use the queue. */
  ~oxa_lockfreeQ() override;

  /**
   * Stamps the calling thread's trace context into element (a zeroed one when it has none)
   * and appends it; the queue holds one reference. Never blocks. Nothing happens for a null
   * element, and nothing is queued when memory runs out.
   */
  void push_back(cshared_ptr<cobject> element);
  /**
   * Removes the oldest element and installs its trace context as the calling thread's; null
   * (and the context unchanged) when the queue is empty.
   */
  cshared_ptr<cobject> pop_front();
  /** 1 when the queue looks empty, else 0; a hint while other threads push or pop. */
  int empty() const;
  /** Elements pushed minus elements popped; may lag an operation in progress. */
  int size() const;

 private:
  oxa_lockfreeQImpl* impl_;
};

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_LOCKFREE_H_ */
