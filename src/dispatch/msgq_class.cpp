// oxa::oxa_msgq: a first-in first-out queue of caller-owned block pointers.
//
// The semaphore counts posts, not pointers: reset() drops pointers without taking their
// posts back, so getq() may be woken for a pointer that is gone and must wait again.
#include <mutex>
#include <new>

#include "oxa_msgq.h"
#include "oxa_time.h"

namespace oxa {
namespace {

// The mutex has lower-case lock() and unlock(), so the standard guard holds it.
using Hold = std::lock_guard<oxa_recursive_mutex>;

}  // namespace

oxa_msgq::oxa_msgq() : sem_(0), queue_(nullptr) { init(); }

oxa_msgq::~oxa_msgq() { destroy(); }

int oxa_msgq::init() {
  auto* queue = new (std::nothrow) std::deque<OXA_MSG_BLOCK_T*>();
  if (queue == nullptr) return OXA_ERROR;
  Hold hold(mutex_);
  queue_ = queue;  // a queue already present is forgotten, as documented
  return 0;
}

int oxa_msgq::putq(OXA_MSG_BLOCK_T* block) {
  if (block == nullptr) return OXA_ERROR;
  {
    Hold hold(mutex_);
    if (queue_ == nullptr) return OXA_ERROR;
    try {
      queue_->push_back(block);
    } catch (const std::bad_alloc&) {
      return OXA_ERROR;
    }
  }
  sem_.post_1();
  return 0;
}

int oxa_msgq::getq(OXA_MSG_BLOCK_T** block, int timeout_ms) {
  if (block == nullptr) return OXA_ERROR;
  {
    Hold hold(mutex_);
    if (queue_ == nullptr) return OXA_ERROR;
  }
  long long left_ms = timeout_ms;
  for (;;) {
    const long long start_us = oxa_time_tick::now();
    if (sem_.wait(static_cast<int>(left_ms)) != 0) return OXA_ERROR;
    Hold hold(mutex_);
    if (queue_ == nullptr) return OXA_ERROR;  // destroyed while this call waited
    if (!queue_->empty()) {
      *block = queue_->front();
      queue_->pop_front();
      return 0;
    }
    // A post left behind by reset(): wait again, within what is left of the time-out.
    if (timeout_ms < 0) continue;
    left_ms -= oxa_time_tick::us2ms(oxa_time_tick::now() - start_us);
    if (left_ms < 1) return OXA_ERROR;
  }
}

void oxa_msgq::reset() {
  Hold hold(mutex_);
  if (queue_ != nullptr) queue_->clear();
}

void oxa_msgq::destroy() {
  Hold hold(mutex_);
  reset();
  delete queue_;
  queue_ = nullptr;
}

}  // namespace oxa
