// Intrusively counted objects and the owning pointer that counts them.
#ifndef OXA_SRC_LOG_SHARED_OBJECT_H_
#define OXA_SRC_LOG_SHARED_OBJECT_H_

#include <stdint.h>

#include <mutex>

#include "oxa_sync.h"

// The base of counted objects. The count is guarded by the object's own mutex; the deleted
// flag is set once, just before the object deletes itself, so a late release cannot delete
// it twice.
class shared_object {
 public:
  shared_object() = default;
  virtual ~shared_object() = default;
  shared_object(const shared_object&) = delete;
  shared_object& operator=(const shared_object&) = delete;

  void AddRef() {
    std::lock_guard<oxa::oxa_mutex> hold(mutex_);
    ++count_;
  }

  void Release() {
    bool last;
    {
      std::lock_guard<oxa::oxa_mutex> hold(mutex_);
      last = --count_ == 0 && deleted_ == 0;
      if (last) deleted_ = 1;
    }
    if (last) delete this;
  }

 private:
  uint32_t count_ = 0;  // Guarded by mutex_.
  oxa::oxa_mutex mutex_;
  uint32_t deleted_ = 0;  // Guarded by mutex_.
};

// An owning pointer to a counted object: copies add a reference, destruction drops one.
template <class T, class Base = shared_object, class Mutex = oxa::oxa_mutex>
class smartptr {
 public:
  smartptr() = default;
  explicit smartptr(T* object) : object_(object) { Acquire(); }
  smartptr(const smartptr& other) : object_(other.object_) { Acquire(); }
  smartptr& operator=(const smartptr& other) {
    smartptr copy(other);
    T* mine = object_;
    object_ = copy.object_;
    copy.object_ = mine;
    return *this;
  }
  ~smartptr() {
    if (object_ != nullptr) static_cast<Base*>(object_)->Release();
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  void Acquire() {
    if (object_ != nullptr) static_cast<Base*>(object_)->AddRef();
  }

  T* object_ = nullptr;
};

#endif  // OXA_SRC_LOG_SHARED_OBJECT_H_
