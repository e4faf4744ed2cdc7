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
  /** A count of 0. */
  oxa_refobj();
  virtual ~oxa_refobj();
  oxa_refobj(const oxa_refobj&) = delete;
  oxa_refobj& operator=(const oxa_refobj&) = delete;

  /** Deletes the object; called by the release that brings the count to 0. */
  virtual void destroy();
  /** Adds one reference atomically; returns the new count. */
  long addRef();
  /**
   * Drops one reference atomically, destroying the object when the count reaches 0; returns the
   * new count (0: the object is gone). A release without a matching addRef takes the count below
   * 0 and never destroys the object.
   */
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
  /** Holds nothing. */
  cshared_ptr() : object_(nullptr) {}
  /** Holds object, adding a reference to it (null: holds nothing). */
  cshared_ptr(T* object) : object_(object) {  // NOLINT(google-explicit-constructor)
    if (object_ != nullptr) object_->addRef();
  }
  /** Holds what other holds, with a reference of its own. */
  cshared_ptr(const cshared_ptr& other) : cshared_ptr(other.object_) {}
  /** Takes other's reference over; other then holds nothing. */
  cshared_ptr(cshared_ptr&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }
  /** Holds what other holds (a U* that converts to T*), with a reference of its own. */
  template <class U>
  cshared_ptr(const cshared_ptr<U>& other)  // NOLINT(google-explicit-constructor)
      : cshared_ptr(other.get()) {}
  /** Drops the held reference, if any. */
  ~cshared_ptr() { reset(); }

  /** Holds what other holds (copied or moved in); the former reference is dropped. */
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

  /** The held object, or null; the count is not changed. */
  T* get() const { return object_; }
  /** The held object; must not be null. */
  T* operator->() const { return object_; }
  /** The held object; must not be null. */
  T& operator*() const { return *object_; }
  /** true when an object is held. */
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
  /**
   * An empty queue. When memory runs out here the queue stays unusable: push_back does
   * nothing, pop_front gives null, empty() 1 and size() -1.
   */
  oxa_lockfreeQ();
  /** Drops the reference of every element still queued. No other thread may use the queue. */
  ~oxa_lockfreeQ() override;

  /**
   * Stamps the calling thread's trace context into element (a zeroed one when it has none)
   * and appends it; the queue holds one reference. Never blocks. Nothing happens for a null
   * element or an unusable queue; when memory for a node runs out the element is stamped but
   * not queued, and the queue's reference is dropped again. None of these cases is reported:
   * there is no result.
   */
  void push_back(cshared_ptr<cobject> element);
  /**
   * Removes the oldest element and installs its trace context as the calling thread's; the
   * result takes over the queue's reference. Null (and the context unchanged) when the queue is
   * empty or unusable.
   */
  cshared_ptr<cobject> pop_front();
  /**
   * 1 when the queue looks empty (or is unusable), else 0; a hint while other threads push or
   * pop.
   */
  int empty() const;
  /**
   * Elements pushed minus elements popped, never below 0; may lag an operation in progress.
   * -1 for an unusable queue.
   */
  int size() const;

 private:
  oxa_lockfreeQImpl* impl_;
};

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_LOCKFREE_H_ */
